// loggerhl::Logger: binding handles to POCO loggers, the level from the
// environment, releasing them, and the default channel on standard error.
#include "loggerhl/logger.h"

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "support/stderr_capture.h"

namespace {

using testing_support::LogCapture;
using testing_support::StderrCapture;

// A message as the library builds it: source file, line, and the function
// and context as named parameters.
Poco::Message MakeMessage(const std::string& source, const std::string& text, int priority,
                          const char* file, int line, const std::string& function,
                          const std::string& ndc) {
  Poco::Message message(source, text, static_cast<Poco::Message::Priority>(priority), file, line);
  if (!function.empty()) message.set("function", function);
  if (!ndc.empty()) message.set("ndc", ndc);
  return message;
}

// --- Create ------------------------------------------------------------------------

TEST(LoggerCreate, BindsTheHandleToThePocoLoggerOfTheName) {
  loggerhl::Logger handle;
  EXPECT_EQ(handle.logger(), nullptr);
  EXPECT_FALSE(handle.enabled());
  handle.Create("CommonTestLogger", "pmd");
  ASSERT_NE(handle.logger(), nullptr);
  EXPECT_EQ(handle.logger(), &Poco::Logger::get("CommonTestLogger"));
  EXPECT_EQ(handle.logger()->name(), "CommonTestLogger");
  EXPECT_FALSE(handle.enabled());
}

TEST(LoggerCreate, TwoHandlesOfOneNameShareTheLogger) {
  loggerhl::Logger first;
  loggerhl::Logger second;
  first.Create("Shared", "pmd");
  second.Create("Shared", "ec");
  EXPECT_EQ(first.logger(), second.logger());
}

TEST(LoggerCreate, FreshLoggerGetsAChannelAndInformationLevel) {
  unsetenv("ZERLA_LOG_LEVEL");
  ASSERT_EQ(Poco::Logger::has("Fresh"), nullptr);
  loggerhl::Logger handle;
  handle.Create("Fresh", "ec");
  EXPECT_TRUE(handle.logger()->getChannel());
  EXPECT_EQ(handle.logger()->getLevel(), Poco::Message::PRIO_INFORMATION);
}

TEST(LoggerCreate, LevelFromTheEnvironmentByNumberAndByName) {
  const std::vector<std::pair<std::string, int>> cases = {
      {"1", 1},     {"2", 2},       {"3", 3},       {"4", 4},           {"5", 5},
      {"6", 6},     {"7", 7},       {"8", 8},       {"fatal", 1},       {"critical", 2},
      {"error", 3}, {"warning", 4}, {"notice", 5},  {"information", 6}, {"debug", 7},
      {"trace", 8}, {"DEBUG", 7},   {"Warning", 4},
  };
  int n = 0;
  for (const auto& [text, level] : cases) {
    setenv("ZERLA_LOG_LEVEL", text.c_str(), 1);
    loggerhl::Logger handle;
    handle.Create("LevelCase" + std::to_string(n++), "pmd");
    EXPECT_EQ(handle.logger()->getLevel(), level) << "ZERLA_LOG_LEVEL=" << text;
  }
}

TEST(LoggerCreate, UnusableLevelTextGivesInformation) {
  int n = 0;
  for (const char* text : {"", "verbose", "0", "9", "-3", "7x", "info"}) {
    setenv("ZERLA_LOG_LEVEL", text, 1);
    loggerhl::Logger handle;
    handle.Create("BadLevelCase" + std::to_string(n++), "pmd");
    EXPECT_EQ(handle.logger()->getLevel(), Poco::Message::PRIO_INFORMATION)
        << "ZERLA_LOG_LEVEL=" << text;
  }
}

TEST(LoggerCreate, LoggerWithAChannelIsLeftAsConfigured) {
  setenv("ZERLA_LOG_LEVEL", "trace", 1);
  LogCapture capture("Configured", Poco::Message::PRIO_WARNING);
  loggerhl::Logger handle;
  handle.Create("Configured", "pmd");
  EXPECT_EQ(handle.logger()->getLevel(), Poco::Message::PRIO_WARNING);
  StderrCapture err;
  handle.logger()->warning("to the capture");
  handle.logger()->notice("below the level");
  EXPECT_EQ(err.Text(), "");
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"to the capture"});
}

TEST(LoggerCreate, SecondCreateKeepsTheFirstConfiguration) {
  setenv("ZERLA_LOG_LEVEL", "error", 1);
  loggerhl::Logger first;
  first.Create("Twice", "pmd");
  setenv("ZERLA_LOG_LEVEL", "trace", 1);
  loggerhl::Logger second;
  second.Create("Twice", "pmd");
  EXPECT_EQ(second.logger()->getLevel(), Poco::Message::PRIO_ERROR);
}

// --- Destroy -----------------------------------------------------------------------

TEST(LoggerDestroy, ReleasesTheRegistrysLoggerAndHandlesStayUsable) {
  unsetenv("ZERLA_LOG_LEVEL");
  loggerhl::Logger handle;
  handle.Create("Destroyed", "pmd");
  ASSERT_NE(Poco::Logger::has("Destroyed"), nullptr);
  loggerhl::Logger::Destroy("Destroyed");
  EXPECT_EQ(Poco::Logger::has("Destroyed"), nullptr);

  StderrCapture err;
  ASSERT_NE(handle.logger(), nullptr);
  EXPECT_EQ(handle.logger()->name(), "Destroyed");
  handle.logger()->log(
      MakeMessage("Destroyed", "still here", Poco::Message::PRIO_ERROR, nullptr, 0, "", ""));
  EXPECT_EQ(err.Text(), "[error] Destroyed: still here\n");
}

TEST(LoggerDestroy, CreateAfterDestroyBindsANewLogger) {
  unsetenv("ZERLA_LOG_LEVEL");
  loggerhl::Logger first;
  first.Create("Again", "pmd");
  first.logger()->setLevel(Poco::Message::PRIO_TRACE);
  loggerhl::Logger::Destroy("Again");
  loggerhl::Logger second;
  second.Create("Again", "pmd");
  EXPECT_NE(Poco::Logger::has("Again"), nullptr);
  EXPECT_EQ(second.logger(), Poco::Logger::has("Again"));
  EXPECT_NE(second.logger(), first.logger());
  EXPECT_EQ(second.logger()->getLevel(), Poco::Message::PRIO_INFORMATION);
  EXPECT_TRUE(second.logger()->getChannel());
}

TEST(LoggerDestroy, UnknownNameDoesNothing) {
  loggerhl::Logger::Destroy("NeverCreated");
  EXPECT_EQ(Poco::Logger::has("NeverCreated"), nullptr);
}

// --- The default channel -------------------------------------------------------------

class DefaultChannel : public testing::Test {
 protected:
  void SetUp() override {
    unsetenv("ZERLA_LOG_LEVEL");
    handle_.Create("Channel", "pmd");
    handle_.logger()->setLevel(Poco::Message::PRIO_TRACE);
  }
  void Log(const Poco::Message& message) { handle_.logger()->log(message); }

  loggerhl::Logger handle_;
};

TEST_F(DefaultChannel, FullLine) {
  StderrCapture err;
  Log(MakeMessage("LibPersistence", "Failed to open database '/d'.", Poco::Message::PRIO_ERROR,
                  "persistence/kvstore.h", 413, "persistence::Status persistence::Open()",
                  "Reopen(/d)"));
  EXPECT_EQ(err.Text(),
            "[error] LibPersistence: Failed to open database '/d'. (persistence/kvstore.h:413, "
            "persistence::Status persistence::Open()) [Reopen(/d)]\n");
}

TEST_F(DefaultChannel, WithoutContext) {
  StderrCapture err;
  Log(MakeMessage("Enrichment", "text", Poco::Message::PRIO_WARNING, "a.cc", 7, "void f()", ""));
  EXPECT_EQ(err.Text(), "[warning] Enrichment: text (a.cc:7, void f())\n");
}

TEST_F(DefaultChannel, WithoutFunction) {
  StderrCapture err;
  Log(MakeMessage("Enrichment", "text", Poco::Message::PRIO_NOTICE, "a.cc", 7, "", "ctx"));
  EXPECT_EQ(err.Text(), "[notice] Enrichment: text (a.cc:7) [ctx]\n");
}

TEST_F(DefaultChannel, WithoutSourceFile) {
  StderrCapture err;
  Log(MakeMessage("Enrichment", "text", Poco::Message::PRIO_DEBUG, nullptr, 0, "void f()", "ctx"));
  EXPECT_EQ(err.Text(), "[debug] Enrichment: text [ctx]\n");
}

TEST_F(DefaultChannel, PriorityNames) {
  StderrCapture err;
  for (int priority = Poco::Message::PRIO_FATAL; priority <= Poco::Message::PRIO_TRACE;
       ++priority) {
    Log(MakeMessage("P", "t", priority, nullptr, 0, "", ""));
  }
  EXPECT_EQ(err.Lines(),
            (std::vector<std::string>{"[fatal] P: t", "[critical] P: t", "[error] P: t",
                                      "[warning] P: t", "[notice] P: t", "[information] P: t",
                                      "[debug] P: t", "[trace] P: t"}));
}

TEST_F(DefaultChannel, OneLinePerMessage) {
  StderrCapture err;
  for (int i = 0; i < 3; ++i) {
    Log(MakeMessage("Channel", "line " + std::to_string(i), Poco::Message::PRIO_ERROR, "f.cc", i,
                    "", ""));
  }
  EXPECT_EQ(err.Text(),
            "[error] Channel: line 0 (f.cc:0)\n[error] Channel: line 1 (f.cc:1)\n"
            "[error] Channel: line 2 (f.cc:2)\n");
}

TEST_F(DefaultChannel, LevelOfTheLoggerFilters) {
  handle_.logger()->setLevel(Poco::Message::PRIO_WARNING);
  StderrCapture err;
  Log(MakeMessage("Channel", "kept", Poco::Message::PRIO_WARNING, nullptr, 0, "", ""));
  Log(MakeMessage("Channel", "dropped", Poco::Message::PRIO_NOTICE, nullptr, 0, "", ""));
  EXPECT_EQ(err.Text(), "[warning] Channel: kept\n");
}

}  // namespace
