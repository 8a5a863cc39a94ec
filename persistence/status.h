// The result of every operation above persistence::DB.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace persistence {

// A code and, for a failure, the engine's whole text for it. The numbers of
// the codes are part of the exported interface: some functions return "code"
// itself. A plain value, freely copied.
struct Status {
  enum Code : int32_t {
    kOk = 0,
    kNotSupported = 1,
    kInvalidArgument = 2,
    kNotFound = 3,
    kCorruption = 4,
    kIOError = 5,
    kUnknown = -1,
  };

  // Success.
  Status() = default;

  // A status made directly, e.g. {kInvalidArgument, "count is nullptr"}.
  Status(int32_t code_in, std::string message_in) : code(code_in), message(std::move(message_in)) {}

  // Converts an engine status (leveldb::Status). Success gives code 0 and an
  // empty message; a failure gives its code and the engine's ToString(). A
  // code the table does not know gives kUnknown and a report in the log.
  // Defined in persistence/status_conversion.h, inside the library.
  template <typename EngineStatus>
  explicit Status(const EngineStatus& status);

  bool ok() const { return code == kOk; }

  int32_t code = kOk;
  std::string message;

 private:
  template <typename EngineStatus>
  static int32_t CodeOf(const EngineStatus& status);
};

}  // namespace persistence
