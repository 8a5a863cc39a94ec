// The nested diagnostic context: a stack of texts per thread.
#include "loggerhl/logger_ndc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(LoggerNdc, EmptyWhenNothingIsPushed) { EXPECT_EQ(logger_ndc_get(), ""); }

TEST(LoggerNdc, PushedTextsAreJoinedByColonOldestFirst) {
  logger_ndc_push("LruStoreSync");
  EXPECT_EQ(logger_ndc_get(), "LruStoreSync");
  logger_ndc_push("Reopen(/data/enrichment_store.lru)");
  EXPECT_EQ(logger_ndc_get(), "LruStoreSync:Reopen(/data/enrichment_store.lru)");
  logger_ndc_push("third");
  EXPECT_EQ(logger_ndc_get(), "LruStoreSync:Reopen(/data/enrichment_store.lru):third");
}

TEST(LoggerNdc, PopRemovesTheNewest) {
  logger_ndc_push("a");
  logger_ndc_push("b");
  logger_ndc_push("c");
  logger_ndc_pop();
  EXPECT_EQ(logger_ndc_get(), "a:b");
  logger_ndc_pop();
  EXPECT_EQ(logger_ndc_get(), "a");
  logger_ndc_pop();
  EXPECT_EQ(logger_ndc_get(), "");
}

TEST(LoggerNdc, PopOnEmptyDoesNothing) {
  logger_ndc_pop();
  logger_ndc_pop();
  EXPECT_EQ(logger_ndc_get(), "");
  logger_ndc_push("x");
  EXPECT_EQ(logger_ndc_get(), "x");
}

TEST(LoggerNdc, EmptyTextsKeepTheirSeparators) {
  logger_ndc_push("");
  EXPECT_EQ(logger_ndc_get(), "");
  logger_ndc_push("b");
  EXPECT_EQ(logger_ndc_get(), ":b");
  logger_ndc_pop();
  logger_ndc_pop();
  logger_ndc_push("a");
  logger_ndc_push("");
  EXPECT_EQ(logger_ndc_get(), "a:");
  logger_ndc_push("c");
  EXPECT_EQ(logger_ndc_get(), "a::c");
}

TEST(LoggerNdc, TextsWithColonsAreKeptWhole) {
  logger_ndc_push("Reopen(/a:b)");
  logger_ndc_push("x");
  logger_ndc_pop();
  EXPECT_EQ(logger_ndc_get(), "Reopen(/a:b)");
}

TEST(LoggerNdc, ReferenceShowsTheCurrentContext) {
  const std::string& context = logger_ndc_get();
  EXPECT_EQ(context, "");
  logger_ndc_push("p");
  EXPECT_EQ(logger_ndc_get(), "p");
  const std::string copy = logger_ndc_get();
  logger_ndc_pop();
  EXPECT_EQ(copy, "p");
  EXPECT_EQ(logger_ndc_get(), "");
}

TEST(LoggerNdc, EachThreadHasItsOwn) {
  logger_ndc_push("main");
  std::string seen_at_start = "unset";
  std::string seen_after_push;
  std::thread worker([&] {
    seen_at_start = logger_ndc_get();
    logger_ndc_push("LruStorePrune");
    seen_after_push = logger_ndc_get();
  });
  worker.join();
  EXPECT_EQ(seen_at_start, "");
  EXPECT_EQ(seen_after_push, "LruStorePrune");
  EXPECT_EQ(logger_ndc_get(), "main");
}

TEST(LoggerNdc, ThreadsPushingTogetherDoNotMix) {
  constexpr int kThreads = 6;
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &mismatches] {
      const std::string own = "thread" + std::to_string(t);
      for (int i = 0; i < 2000; ++i) {
        logger_ndc_push(own);
        logger_ndc_push(std::to_string(i));
        if (logger_ndc_get() != own + ":" + std::to_string(i)) ++mismatches;
        logger_ndc_pop();
        if (logger_ndc_get() != own) ++mismatches;
        logger_ndc_pop();
        if (!logger_ndc_get().empty()) ++mismatches;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(logger_ndc_get(), "");
}

}  // namespace
