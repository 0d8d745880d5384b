// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The build includes this file before main.cpp. It gives the daemon's main another symbol, so that a test
 * program, which has its own main, can call it. The function's name in the source stays `main`, which its log
 * lines contain.
 */
int main(int argc, char** argv) __asm__("DaemonMain");
