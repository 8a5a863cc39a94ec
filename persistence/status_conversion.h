// Turning an engine status into persistence::Status, inside the library.
#pragma once

#include "nix/dravinhold/logging.h"
#include "persistence/report.h"
#include "persistence/status.h"

namespace persistence {

template <typename EngineStatus>
int32_t Status::CodeOf(const EngineStatus& status) {
  if (status.ok()) return kOk;
  if (status.IsNotSupportedError()) return kNotSupported;
  if (status.IsInvalidArgument()) return kInvalidArgument;
  if (status.IsNotFound()) return kNotFound;
  if (status.IsCorruption()) return kCorruption;
  if (status.IsIOError()) return kIOError;
  return kUnknown;
}

template <typename EngineStatus>
Status::Status(const EngineStatus& status) : code(CodeOf(status)) {
  if (code == kOk) return;
  // Reported through the enrichment logger whichever store the status comes
  // from: this constructor exists once for the whole library.
  if (code == kUnknown) CHECK_LOGGED(EnrichmentLogger, false, "Unknown leveldb::Status!");
  message = status.ToString();
}

}  // namespace persistence
