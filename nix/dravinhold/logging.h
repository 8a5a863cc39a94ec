// The library's two loggers. Each instantiation of the typed store logs
// through the one its records belong to, chosen at build time.
#pragma once

#include "loggerhl/logger.h"
#include "persistence/export.h"

// A process-wide logger handle named by Derived::kName. Instance() creates it
// on first use and its destructor releases the logger at process exit.
// Instance() is exported with "instance" and its guard: inline header code
// in callers' programs logs through the same handle as the library.
template <typename Derived>
class DRAVINHOLD_EXPORT LoggerSingleton : public loggerhl::Logger {
 public:
  DRAVINHOLD_EXPORT static Derived& Instance() {
    static Derived instance;
    return instance;
  }

  LoggerSingleton(const LoggerSingleton&) = delete;
  LoggerSingleton& operator=(const LoggerSingleton&) = delete;

 protected:
  LoggerSingleton() {
    logger_ = nullptr;
    enabled_ = true;
    Create(Derived::kName, Derived::kTag);
  }
  ~LoggerSingleton() { loggerhl::Logger::Destroy(Derived::kName); }
};

// The logger of the fvhash, trusted signers, trusted signers cache and policy
// stores.
class DRAVINHOLD_EXPORT LibPersistenceLogger : public LoggerSingleton<LibPersistenceLogger> {
 public:
  static constexpr char kName[] = "LibPersistence";
  static constexpr char kTag[] = "pmd";

 private:
  friend class LoggerSingleton<LibPersistenceLogger>;
  LibPersistenceLogger() = default;
};

// The logger of the enrichment store and everything under it.
class DRAVINHOLD_EXPORT EnrichmentLogger : public LoggerSingleton<EnrichmentLogger> {
 public:
  static constexpr char kName[] = "Enrichment";
  static constexpr char kTag[] = "ec";

 private:
  friend class LoggerSingleton<EnrichmentLogger>;
  EnrichmentLogger() = default;
};
