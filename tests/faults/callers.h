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
    returned_by_caller_.assign(calls.size(), 0);
    for (size_t caller = 0; caller < calls.size(); ++caller) {
      threads_.emplace_back([this, caller, call = std::move(calls[caller])] {
        while (!stop_) {
          const int code = call();
          std::lock_guard<std::mutex> lock(mutex_);
          ++codes_[code];
          ++returned_by_caller_[caller];
        }
      });
    }
  }
  ~Callers() { Stop(); }
  Callers(const Callers&) = delete;
  Callers& operator=(const Callers&) = delete;

  // Lets the callers run until at least "calls" calls have returned and
  // every caller has returned at least once, or "limit" has passed. Returns
  // whether the calls returned in time. Each caller must take part: on a
  // loaded machine one thread can make all the calls while another has not
  // yet been scheduled.
  bool RunFor(int calls, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const int start = Returned();
    const std::vector<int> start_by_caller = ReturnedByCaller();
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (Returned() - start < calls || !EachReturnedSince(start_by_caller)) {
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
  std::vector<int> ReturnedByCaller() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return returned_by_caller_;
  }

  bool EachReturnedSince(const std::vector<int>& start) const {
    const std::vector<int> now = ReturnedByCaller();
    for (size_t caller = 0; caller < now.size(); ++caller) {
      if (now[caller] <= start[caller]) return false;
    }
    return true;
  }

  std::atomic<bool> stop_{false};
  mutable std::mutex mutex_;
  std::map<int, int> codes_;
  std::vector<int> returned_by_caller_;
  std::vector<std::thread> threads_;
};

}  // namespace faults_testing
