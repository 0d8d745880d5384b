// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Included before all of main.cpp: the daemon's main gets another symbol, so that a test program, which has
 * a main of its own, can call it; its name in the source, which its log lines carry, stays. */
int main(int argc, char** argv) __asm__("DaemonMain");
