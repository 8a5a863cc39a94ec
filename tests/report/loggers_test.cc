// The two logger singletons of the library.
#include "nix/dravinhold/logging.h"

#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <thread>
#include <type_traits>
#include <vector>

#include "persistence/report.h"
#include "support/log_capture.h"

namespace {

using testing_support::LogCapture;

static_assert(std::is_base_of_v<loggerhl::Logger, LibPersistenceLogger>,
              "the library's logger is a handle of the common library");
static_assert(std::is_base_of_v<loggerhl::Logger, EnrichmentLogger>,
              "the enrichment logger is a handle of the common library");
static_assert(!std::is_copy_constructible_v<LibPersistenceLogger>, "a singleton is not copied");
static_assert(!std::is_copy_constructible_v<EnrichmentLogger>, "a singleton is not copied");

TEST(LibPersistenceLogger, IsBoundToTheLoggerNamedLibPersistence) {
  const LibPersistenceLogger& handle = LibPersistenceLogger::Instance();
  ASSERT_NE(handle.logger(), nullptr);
  EXPECT_EQ(handle.logger(), &Poco::Logger::get("LibPersistence"));
  EXPECT_EQ(handle.logger()->name(), "LibPersistence");
  EXPECT_TRUE(handle.enabled());
}

TEST(EnrichmentLogger, IsBoundToTheLoggerNamedEnrichment) {
  const EnrichmentLogger& handle = EnrichmentLogger::Instance();
  ASSERT_NE(handle.logger(), nullptr);
  EXPECT_EQ(handle.logger(), &Poco::Logger::get("Enrichment"));
  EXPECT_EQ(handle.logger()->name(), "Enrichment");
  EXPECT_TRUE(handle.enabled());
}

TEST(LoggerSingletons, AreTwoDistinctLoggers) {
  EXPECT_NE(LibPersistenceLogger::Instance().logger(), EnrichmentLogger::Instance().logger());
  EXPECT_NE(static_cast<const void*>(&LibPersistenceLogger::Instance()),
            static_cast<const void*>(&EnrichmentLogger::Instance()));
}

TEST(LoggerSingletons, InstanceIsTheSameObjectEveryTime) {
  EXPECT_EQ(&LibPersistenceLogger::Instance(), &LibPersistenceLogger::Instance());
  EXPECT_EQ(&EnrichmentLogger::Instance(), &EnrichmentLogger::Instance());
}

TEST(LoggerSingletons, FirstUseFromManyThreadsMakesOneObject) {
  constexpr int kThreads = 8;
  std::vector<const void*> seen(kThreads);
  std::vector<const Poco::Logger*> loggers(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i, &seen, &loggers] {
      const LibPersistenceLogger& handle = LibPersistenceLogger::Instance();
      seen[i] = &handle;
      loggers[i] = handle.logger();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<const void*>(seen.begin(), seen.end()).size(), 1u);
  EXPECT_EQ(std::set<const Poco::Logger*>(loggers.begin(), loggers.end()).size(), 1u);
  EXPECT_EQ(loggers[0], &Poco::Logger::get("LibPersistence"));
}

TEST(LoggerSingletons, FreshLoggerHasTheCommonLibraryDefaultsInformationLevelAndAChannel) {
  unsetenv("ZERLA_LOG_LEVEL");
  ASSERT_EQ(Poco::Logger::has("LibPersistence"), nullptr);
  const LibPersistenceLogger& handle = LibPersistenceLogger::Instance();
  EXPECT_EQ(handle.logger()->getLevel(), Poco::Message::PRIO_INFORMATION);
  EXPECT_TRUE(handle.logger()->getChannel());
}

TEST(LoggerSingletons, LevelComesFromTheEnvironmentAtFirstUse) {
  setenv("ZERLA_LOG_LEVEL", "debug", 1);
  EXPECT_EQ(EnrichmentLogger::Instance().logger()->getLevel(), Poco::Message::PRIO_DEBUG);
  // Read at creation only.
  setenv("ZERLA_LOG_LEVEL", "error", 1);
  EXPECT_EQ(EnrichmentLogger::Instance().logger()->getLevel(), Poco::Message::PRIO_DEBUG);
}

TEST(LoggerSingletons, AnAlreadyConfiguredLoggerIsLeftAsItIs) {
  LogCapture capture("LibPersistence", Poco::Message::PRIO_WARNING);
  const LibPersistenceLogger& handle = LibPersistenceLogger::Instance();
  EXPECT_EQ(handle.logger()->getLevel(), Poco::Message::PRIO_WARNING);
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_WARNING, "kept");
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"kept"});
}

// Process exit runs the singleton's destructor, which releases the logger of
// its name in POCO's registry. A handler registered before the singleton is
// made runs after its destructor and looks at the registry.
void ExitWithLibPersistenceRegistered() {
  std::_Exit(Poco::Logger::has("LibPersistence") == nullptr ? 0 : 3);
}

void ExitWithEnrichmentRegistered() {
  std::_Exit(Poco::Logger::has("Enrichment") == nullptr ? 0 : 3);
}

TEST(LoggerSingletonsDeathTest, ProcessExitDestroysTheLibPersistenceLogger) {
  EXPECT_EXIT(
      {
        std::atexit(&ExitWithLibPersistenceRegistered);
        LibPersistenceLogger::Instance();
        if (Poco::Logger::has("LibPersistence") == nullptr) std::_Exit(2);
        std::exit(1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(LoggerSingletonsDeathTest, ProcessExitDestroysTheEnrichmentLogger) {
  EXPECT_EXIT(
      {
        std::atexit(&ExitWithEnrichmentRegistered);
        EnrichmentLogger::Instance();
        if (Poco::Logger::has("Enrichment") == nullptr) std::_Exit(2);
        std::exit(1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(LoggerSingletons, LinesGoToTheLoggerChosenAtTheSite) {
  LogCapture lib("LibPersistence");
  LogCapture enrichment("Enrichment");
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_NOTICE, "to the library's logger");
  LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_NOTICE, "to the enrichment logger");
  EXPECT_EQ(lib.texts(), std::vector<std::string>{"to the library's logger"});
  EXPECT_EQ(enrichment.texts(), std::vector<std::string>{"to the enrichment logger"});
  ASSERT_EQ(lib.lines().size(), 1u);
  EXPECT_EQ(lib.lines()[0].source, "LibPersistence");
  ASSERT_EQ(enrichment.lines().size(), 1u);
  EXPECT_EQ(enrichment.lines()[0].source, "Enrichment");
}

}  // namespace
