// What the typed-store tests share: a store subclass that reaches the
// protected parts, record makers, raw access to a directory, log and stderr
// line checks, a steady clock that counts its reads, and a guard that turns a
// hang into a failure.
#pragma once

#include <gtest/gtest.h>
#include <leveldb/status.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "persistence/db.h"
#include "persistence/kvstore.h"
#include "persistence/testing/seams.h"
#include "support/log_capture.h"
#include "testing/records.pb.h"

namespace persistence {

// Statuses compare and print in test expectations.
inline bool operator==(const Status& a, const Status& b) {
  return a.code == b.code && a.message == b.message;
}
inline bool operator!=(const Status& a, const Status& b) { return !(a == b); }
inline void PrintTo(const Status& status, std::ostream* out) {
  *out << "{" << status.code << ", \"" << status.message << "\"}";
}

}  // namespace persistence

namespace kvstore_test {

using persistence::Status;
using proto::Testing::Key;
using proto::Testing::Value;

using StringStore = persistence::KVStore<std::string, Value, proto::Testing::Data>;
using KeyedStore = persistence::KVStore<Key, Value, proto::Testing::KeyedData>;

constexpr std::chrono::seconds kReopenDelay(300);
constexpr char kLoggerName[] = "LibPersistence";
constexpr char kStoreSource[] = "persistence/kvstore.h";

inline Status St(int32_t code, const std::string& message) { return Status(code, message); }
inline Status Ok() { return Status(); }
// What a closed store answers while a reopen is not yet allowed.
inline Status Refused() { return Status(Status::kIOError, ""); }

// A store whose protected parts the tests reach. Reopen and HandleErrors keep
// their behaviour; the subclass only counts and observes them.
template <typename Base>
class TestStore : public Base {
 public:
  using SharedLock = typename Base::SharedLock;
  using ExclusiveLock = typename Base::ExclusiveLock;

  TestStore() : Base(108) {}
  explicit TestStore(persistence::HeapTag tag) : Base(tag) {}

  // The way every store of the library opens.
  Status Open(const std::string& path, bool paranoid_checks, size_t cache_size_mb = 0) {
    return this->OpenWithRecovery(path, paranoid_checks, cache_size_mb);
  }
  Status OpenPlain(const std::string& path, bool paranoid_checks, bool create_if_missing,
                   size_t cache_size_mb = 0) {
    ExclusiveLock lock(this->mutex_);
    return this->OpenNoLock(path, paranoid_checks, create_if_missing, cache_size_mb);
  }
  Status OpenWithRecoveryAgain(const std::string& path, bool paranoid_checks) {
    ExclusiveLock lock(this->mutex_);
    return this->OpenWithRecoveryNoLock(path, paranoid_checks, 0);
  }
  void Close() {
    ExclusiveLock lock(this->mutex_);
    this->CloseNoLock();
  }
  Status CallReopen(SharedLock& lock) { return this->Reopen(lock); }
  void CallHandleErrors(leveldb::Status& status, SharedLock& lock) {
    this->HandleErrors(status, lock);
  }

  std::shared_mutex& mutex() const { return this->mutex_; }
  persistence::DB* db() const { return this->db_.get(); }
  std::string stored_path() const { return this->path_; }
  bool paranoid_checks() const { return this->paranoid_checks_; }
  bool use_recovery() const { return this->use_recovery_; }
  uint64_t cache_size_mb() const { return this->cache_size_mb_; }
  persistence::SteadyTimePoint last_reopen() const { return this->last_reopen_; }
  std::chrono::nanoseconds min_reopen_delay() const { return this->min_reopen_delay_; }
  persistence::HeapTag heap_tag() const { return this->heap_tag_; }

  // Every call of Reopen, refused ones included.
  std::atomic<int> reopen_calls{0};
  // Sees each engine status before HandleErrors does.
  std::function<void(const leveldb::Status&)> on_handle_errors;
  // Sees the result of each Reopen and whether the caller's lock is held
  // after it.
  std::function<void(const Status&, bool owns_lock)> on_reopen_result;

 protected:
  Status Reopen(SharedLock& lock) override {
    ++reopen_calls;
    Status status = Base::Reopen(lock);
    if (on_reopen_result) on_reopen_result(status, lock.owns_lock());
    return status;
  }
  void HandleErrors(leveldb::Status& status, SharedLock& lock) override {
    if (on_handle_errors) on_handle_errors(status);
    Base::HandleErrors(status, lock);
  }
};

using TestStringStore = TestStore<StringStore>;
using TestKeyedStore = TestStore<KeyedStore>;

// --- Records ----------------------------------------------------------------

Value MakeValue(const std::string& text, int64_t number = 0, const std::string& blob = "");
Key MakeKey(const std::string& name, int32_t id);
// Messages whose wire form does not parse back (invalid UTF-8 in a string).
Value BadValue();
Key BadKey();
// Bytes that parse as no message of the test schemas.
std::string GarbageBytes();
// Deterministic bytes that do not compress.
std::string Blob(int seed, size_t size);
std::string Wire(const google::protobuf::MessageLite& message);

// --- Raw access to a directory through the handle -----------------------------

// Writes records as they stand, bytes for bytes, into the database at "dir"
// (created if missing). The directory must not be open elsewhere.
void WriteRaw(const std::string& dir,
              const std::vector<std::pair<std::string, std::string>>& records);
// Every record of the database at "dir", keyed by its bytes.
std::map<std::string, std::string> ReadRaw(const std::string& dir);
// Writes "count" records "k0", "k1", ... through a store opened on "path",
// each with a value of text "v<i>", number i and a blob of "blob_size"
// bytes that do not compress, then compacts them into table files and closes.
void FillCompacted(const std::string& path, int count, size_t blob_size);
// The value FillCompacted wrote under "k<i>".
Value FilledValue(int i, size_t blob_size);
// Inverts "count" bytes of a file in place, without rewriting it, so that a
// database that has it open sees the change at once.
void FlipInPlace(const std::string& path, uint64_t offset, uint64_t count);
// Offset of the first occurrence of "bytes" in the file, which must exist.
uint64_t OffsetOf(const std::string& path, const std::string& bytes);
// Path of the one table file of the database in "dir".
std::string OnlyTableFile(const std::string& dir);
// Bytes a directory takes on disk, counted here without the library.
uint64_t DiskUsage(const std::string& dir);
bool IsDirectory(const std::string& path);
bool Exists(const std::string& path);

// --- Log lines --------------------------------------------------------------

std::vector<testing_support::LoggedLine> LinesWithText(const testing_support::LogCapture& log,
                                                       const std::string& text);
int CountText(const testing_support::LogCapture& log, const std::string& text);
// Text and priority of every line, as "<priority> <text>", for whole-log
// comparisons.
std::vector<std::string> Summary(const testing_support::LogCapture& log);
std::vector<std::string> Summary(const std::vector<testing_support::LoggedLine>& lines);
std::string Line(int priority, const std::string& text);

// A line this library's code logged from kvstore.h with the given text,
// priority and context.
::testing::AssertionResult IsStoreLine(const testing_support::LoggedLine& line, int priority,
                                       const std::string& text, const std::string& ndc);
// A failed check of kvstore.h, with its header naming the site that logged
// it, and the site's source line holding that check.
::testing::AssertionResult IsCheckLine(const testing_support::LoggedLine& line,
                                       const std::string& condition, const std::string& message,
                                       const std::string& function_name);

// --- Standard error ---------------------------------------------------------

// Drops the lines of the protocol-buffer runtime's own log.
std::vector<std::string> WithoutProtobufLines(const std::vector<std::string>& lines);
// "Line <n> @ persistence/db.cc *** Assertion '((<condition>))' failed *** <message>"
::testing::AssertionResult IsDbCheckLine(const std::string& line, const std::string& condition,
                                         const std::string& message);
bool FullMatch(const std::string& text, const std::string& pattern);
std::string RegexEscape(const std::string& text);

// --- Time and threads -------------------------------------------------------

// Runs "body" in a thread of its own; if it has not ended within "limit",
// reports the hang and ends the process with a failure instead of waiting
// for ever.
void RunBounded(std::chrono::milliseconds limit, const std::string& what,
                const std::function<void()>& body);
// Polls "done" every millisecond until it holds or "limit" has passed.
bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);
// Kernel thread id of the caller, and whether that thread is asleep in the
// kernel (as a thread blocked on a lock is).
int CurrentThreadId();
bool ThreadIsSleeping(int thread_id);

// A steady clock under test control that counts its reads, so that a test can
// tell when other threads have reached a given read. Only one clock override
// may be alive at a time (this or testing_support::TestClock).
class CountingClock {
 public:
  explicit CountingClock(std::chrono::nanoseconds start = std::chrono::hours(1));
  ~CountingClock();
  CountingClock(const CountingClock&) = delete;
  CountingClock& operator=(const CountingClock&) = delete;

  void Advance(std::chrono::nanoseconds step);
  int reads() const;
  void ResetReads();
};

// A simple meeting point for a fixed number of threads.
class Rendezvous {
 public:
  explicit Rendezvous(int parties) : parties_(parties) {}
  // Returns false when the others did not arrive within "limit".
  bool ArriveAndWait(std::chrono::milliseconds limit);

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  int parties_;
  int count_ = 0;
};

}  // namespace kvstore_test
