// Removal of the tool's temporary copies when it is interrupted.
#pragma once

#include <string>

namespace dravinholdctl {

// Blocks SIGINT, SIGTERM and SIGHUP in this thread and in every thread made
// after it, and starts a thread that waits for them: on one it removes every
// directory still registered and ends the process by the same signal. Call
// first thing in main, before any thread exists, so that no other thread can
// take the signal and die with a copy left behind.
void InstallInterruptCleanup();

// Adds "path" to the directories removed on an interruption.
void RegisterTemporaryDirectory(const std::string& path);

// Takes "path" off that list again; its owner removes it itself.
void UnregisterTemporaryDirectory(const std::string& path);

}  // namespace dravinholdctl
