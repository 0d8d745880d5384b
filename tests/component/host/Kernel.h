// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Functions in the place of the C library's that call the kernel. They note the calls of the platform, let them
 * fail, or let somebody else act in between. A program that links them uses them.
 */
#ifndef KAVREL_TESTS_HOST_KERNEL_H
#define KAVREL_TESTS_HOST_KERNEL_H

#include <functional>
#include <string>

namespace kernel {

/** The folders that were made, the files that were renamed into place and those that were synced, in order, since the last call. */
std::string TakeSteps();

/** Two actions for the moments right before and right after the next file of this name comes into its place. */
struct Crossing {
    std::string name;
    std::function<void()> before;
    std::function<void()> after;
};
void Cross(const Crossing& crossing);

/**
 * An action for the moment right before the next file of this path, as the opener writes it, is opened. Without a path
 * it is the next file that is made.
 */
void CrossOpening(const std::string& path, const std::function<void()>& action);

/** An action for the moment right after this thread has unlocked mutexes so many times. */
void CrossUnlock(int times, const std::function<void()>& action);

/** How many files the process has opened so far that a program started meanwhile would inherit. */
int FilesOpenedToInherit();

/** Waits until the process waits for files with another time limit than before. @return the limit in milliseconds, or -1 */
int NextTimeout();

/** Holds the thread that is about to wait for files until the end of the held wait. All three @return 0 */
int HoldWaits();
int AwaitHeldWait();
int EndHeldWait();

/** The next so many files that the process wants to wait for are refused. @return 0 */
int RefuseWaits(int times);

/** No folder whose path ends so can be watched, as if no watches were left. An empty end: all can be. */
void RefuseWatchesOf(const std::string& end);

/** Makes each opening of exactly this path fail, as if there were no such file. */
void HideFile(const std::string& path);

/** Nothing of this name can be synced, as on a broken disk: "file", or a folder's name. An empty name: all can be. */
void RefuseSyncsOf(const std::string& name);

/** The next so many openat2() find that something is renamed meanwhile. @return 0 */
int RenameMeanwhile(int times);

/** Makes the kernel answer a system call of this thread with the errno, as a sandbox does. @return 0 on success */
int Refuse(const std::string& call, int error);

}  // namespace kernel

#endif
