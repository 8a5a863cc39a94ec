// Callers that keep calling a store from threads of their own while a test
// damages its directory, and that tell afterwards what every call returned.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace faults_testing {

class Callers {
 public:
  // Starts one thread per function; each calls its function over and over
  // and counts the codes it returns.
  explicit Callers(std::vector<std::function<int()>> calls) {
    for (std::function<int()>& call : calls) {
      threads_.emplace_back([this, call = std::move(call)] {
        while (!stop_) {
          const int code = call();
          std::lock_guard<std::mutex> lock(mutex_);
          ++codes_[code];
        }
      });
    }
  }
  ~Callers() { Stop(); }
  Callers(const Callers&) = delete;
  Callers& operator=(const Callers&) = delete;

  // Lets the callers run until at least "calls" calls have returned, or
  // "limit" has passed. Returns whether the calls returned in time.
  bool RunFor(int calls, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const int start = Returned();
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (Returned() - start < calls) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }

  // Stops the callers and waits for their last calls to return.
  void Stop() {
    stop_ = true;
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

  // How often each code came back.
  std::map<int, int> Codes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return codes_;
  }

  int Returned() const {
    std::lock_guard<std::mutex> lock(mutex_);
    int total = 0;
    for (const auto& [code, count] : codes_) total += count;
    return total;
  }

 private:
  std::atomic<bool> stop_{false};
  mutable std::mutex mutex_;
  std::map<int, int> codes_;
  std::vector<std::thread> threads_;
};

}  // namespace faults_testing
