#include "cleanup.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <set>
#include <thread>

namespace dravinholdctl {
namespace {

std::mutex& RegistryMutex() {
  static std::mutex mutex;
  return mutex;
}

std::set<std::string>& Registry() {
  static std::set<std::string> directories;
  return directories;
}

sigset_t InterruptSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  return signals;
}

// Runs as an ordinary thread, not in a signal handler, so that removing a
// directory tree is allowed here.
void WaitForInterrupt() {
  const sigset_t signals = InterruptSignals();
  int signal_number = 0;
  if (sigwait(&signals, &signal_number) != 0) return;
  {
    std::lock_guard<std::mutex> lock(RegistryMutex());
    for (const std::string& path : Registry()) {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
  }
  // End as the signal would have ended the process, so that a shell sees
  // the interruption in the exit status.
  signal(signal_number, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  raise(signal_number);
  _exit(128 + signal_number);
}

}  // namespace

void InstallInterruptCleanup() {
  const sigset_t signals = InterruptSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread(WaitForInterrupt).detach();
}

void RegisterTemporaryDirectory(const std::string& path) {
  std::lock_guard<std::mutex> lock(RegistryMutex());
  Registry().insert(path);
}

void UnregisterTemporaryDirectory(const std::string& path) {
  std::lock_guard<std::mutex> lock(RegistryMutex());
  Registry().erase(path);
}

}  // namespace dravinholdctl
