// What the three fuzz targets share: a scratch directory of their own, quiet
// protocol-buffer logging, and the end of an input that broke an
// expectation.
#pragma once

#include <google/protobuf/stubs/logging.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "persistence/status.h"

namespace fuzzing {

// A new directory under $TMPDIR, or /dev/shm when there is no TMPDIR and it
// exists, or /tmp.
inline std::string MakeScratchDir(const std::string& name) {
  std::string base;
  if (const char* tmp = std::getenv("TMPDIR"); tmp != nullptr && *tmp != '\0') {
    base = tmp;
  } else {
    std::error_code error;
    base = std::filesystem::is_directory("/dev/shm", error) ? "/dev/shm" : "/tmp";
  }
  std::string pattern = base + "/dravinhold-" + name + "-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    std::abort();
  }
  return pattern;
}

inline void RemoveScratchDir(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
}

// The stores prove every encoding by parsing it back, and a string field
// that is not UTF-8 makes the protocol-buffer library log each time; the
// results are what the targets look at.
inline void SilenceProtobufLog() { google::protobuf::SetLogHandler(nullptr); }

// Prints each broken expectation on standard output, which stays open when
// the fuzzer closes standard error, and aborts so that the fuzzer keeps the
// input.
inline void AbortOnFailures(const std::vector<std::string>& failures) {
  if (failures.empty()) return;
  for (const std::string& failure : failures) std::printf("BROKEN: %s\n", failure.c_str());
  std::fflush(stdout);
  std::abort();
}

// "bytes" in lower-case hex, for reports of arbitrary keys.
inline std::string Hex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const unsigned char c : bytes) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

// A status as reports show it: its code and its message.
inline std::string Describe(const persistence::Status& status) {
  std::ostringstream out;
  out << "code " << status.code << " message \"" << status.message << "\"";
  return out.str();
}

}  // namespace fuzzing
