// EmberLogger through its C interface and its class.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ember_logger/ember_logger.h"
#include "support/log_capture.h"

namespace {

using ember_logger::Logger;
using support::LogCapture;
using support::LogLine;
using support::LogLines;

Logger makeLogger(const char* tag, int level) {
  return Logger(tag, nullptr, level, false, false, false, true, 0x100000, nullptr, nullptr, nullptr);
}

void logEachSeverity(Logger& logger) {
  logger.log(ember_logger::trace, "[%s] trace", "f");
  logger.log(ember_logger::debug, "[%s] debug", "f");
  logger.log(ember_logger::info, "[%s] info", "f");
  logger.log(ember_logger::warning, "[%s] warning", "f");
  logger.log(ember_logger::error, "[%s] error", "f");
}

const LogLines kEachSeverity{{0, "[f] trace"}, {1, "[f] debug"}, {2, "[f] info"}, {3, "[f] warning"}, {4, "[f] error"}};

// What is written to stderr while it lives.
class StderrCapture {
 public:
  StderrCapture() { testing::internal::CaptureStderr(); }
  ~StderrCapture() {
    if (!taken_) {
      testing::internal::GetCapturedStderr();
    }
  }
  std::string take() {
    taken_ = true;
    std::string text = testing::internal::GetCapturedStderr();
    std::erase(text, '\r');
    return text;
  }

 private:
  bool taken_ = false;
};

TEST(LoggerTest, WritesErrorsToStderrUnlessTold) {
  StderrCapture output;
  Logger logger = makeLogger("Tag", ember_logger::error);
  logEachSeverity(logger);
  EXPECT_EQ(output.take(), "[Tag] [error] [f] error\n");
}

TEST(LoggerTest, KeepsTheLevelItWasMadeWith) {
  StderrCapture output;
  Logger logger = makeLogger("Tag", ember_logger::info);
  logEachSeverity(logger);
  EXPECT_EQ(output.take(), "[Tag] [info] [f] info\n[Tag] [warning] [f] warning\n[Tag] [error] [f] error\n");
}

TEST(LoggerTest, TakesACommonLevelForLoggersMadeBeforeAndAfter) {
  Logger before = makeLogger("Before", ember_logger::error);
  LogCapture log(ember_logger::trace);
  Logger after = makeLogger("After", ember_logger::error);
  for (Logger* logger : {&before, &after}) {
    logEachSeverity(*logger);
    EXPECT_EQ(log.take(), kEachSeverity);
  }
  for (const auto& [level, lines] : {std::pair{-7, 5U}, {0, 5U}, {1, 4U}, {3, 2U}, {4, 1U}, {5, 0U}, {99, 0U}}) {
    EmberLogger_SetLevel(level);
    logEachSeverity(before);
    EXPECT_EQ(log.take().size(), lines) << level;
  }
}

struct Received {
  int severity;
  std::string tag;
  std::string message;
};

TEST(LoggerTest, HandsTagMessageAndUserToTheSink) {
  std::vector<Received> received;
  EmberLogger_SetSink(
      [](int severity, const char* tag, const char* message, void* user) {
        static_cast<std::vector<Received>*>(user)->push_back({severity, tag, message});
      },
      &received);
  EmberLogger_SetLevel(ember_logger::trace);
  Logger logger = makeLogger("Tag", ember_logger::trace);
  logger.log(ember_logger::warning, "[%s] %u of %llu at %d%% in %p-free text", "Class::function", 7U, 1ULL << 40, -3,
             nullptr);
  Logger nameless = makeLogger(nullptr, ember_logger::trace);
  nameless.log(ember_logger::info, "plain");
  EmberLogger_SetSink(nullptr, nullptr);
  ASSERT_EQ(received.size(), 2U);
  EXPECT_EQ(received[0].severity, 3);
  EXPECT_EQ(received[0].tag, "Tag");
  EXPECT_EQ(received[0].message.find("[Class::function] 7 of 1099511627776 at -3% in "), 0U);
  EXPECT_EQ(received[1].tag, "");
  EXPECT_EQ(received[1].message, "plain");
}

TEST(LoggerTest, FillsTextsOfAnyLength) {
  LogCapture log;
  Logger logger = makeLogger("Tag", ember_logger::error);
  for (const std::size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 100000U}) {
    const std::string text(length, 'x');
    logger.log(ember_logger::error, "%s", text.c_str());
    EXPECT_EQ(log.take(), (LogLines{{4, text}}));
  }
}

TEST(LoggerTest, SurvivesASinkThatThrows) {
  EmberLogger_SetSink([](int, const char*, const char*, void*) { throw std::runtime_error("sink"); }, nullptr);
  Logger logger = makeLogger("Tag", ember_logger::error);
  logger.log(ember_logger::error, "one");
  logger.log(ember_logger::error, "two");
  LogCapture log;
  logger.log(ember_logger::error, "three");
  EXPECT_EQ(log.take(), (LogLines{{4, "three"}}));
}

TEST(LoggerTest, SendsWhatASinkLogsToStderr) {
  StderrCapture output;
  static Logger* logger = nullptr;
  Logger made = makeLogger("Tag", ember_logger::error);
  logger = &made;
  EmberLogger_SetSink(
      [](int, const char*, const char* message, void*) { logger->log(ember_logger::error, "seen: %s", message); },
      nullptr);
  logger->log(ember_logger::error, "message");
  EmberLogger_SetSink(nullptr, nullptr);
  EXPECT_EQ(output.take(), "[Tag] [error] seen: message\n");
}

TEST(LoggerTest, LetsASinkTakeItselfAway) {
  StderrCapture output;
  static int calls = 0;
  EmberLogger_SetSink(
      [](int, const char*, const char*, void*) {
        ++calls;
        EmberLogger_SetSink(nullptr, nullptr);
      },
      nullptr);
  Logger logger = makeLogger("Tag", ember_logger::error);
  logger.log(ember_logger::error, "one");
  logger.log(ember_logger::error, "two");
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(output.take(), "[Tag] [error] two\n");
}

TEST(LoggerTest, CallsTheSinkOneMessageAtATime) {
  struct State {
    std::atomic<int> inside = 0;
    std::atomic<bool> overlapped = false;
    int messages = 0;  // not atomic: one call at a time
  } state;
  EmberLogger_SetSink(
      [](int, const char*, const char*, void* user) {
        auto& shared = *static_cast<State*>(user);
        if (++shared.inside != 1) {
          shared.overlapped = true;
        }
        ++shared.messages;
        std::this_thread::yield();
        --shared.inside;
      },
      &state);
  Logger logger = makeLogger("Tag", ember_logger::error);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&logger] {
      for (int message = 0; message < 500; ++message) {
        logger.log(ember_logger::error, "message %d", message);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EmberLogger_SetSink(nullptr, nullptr);
  EXPECT_FALSE(state.overlapped);
  EXPECT_EQ(state.messages, 2000);
}

TEST(LoggerTest, WaitsForARunningSinkBeforeItIsReplaced) {
  struct State {
    std::atomic<bool> entered = false;
    std::atomic<bool> left = false;
  } state;
  EmberLogger_SetSink(
      [](int, const char*, const char*, void* user) {
        auto& shared = *static_cast<State*>(user);
        shared.entered = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        shared.left = true;
      },
      &state);
  Logger logger = makeLogger("Tag", ember_logger::error);
  std::thread thread([&logger] { logger.log(ember_logger::error, "slow"); });
  while (!state.entered) {
    std::this_thread::yield();
  }
  EmberLogger_SetSink(nullptr, nullptr);
  EXPECT_TRUE(state.left);
  thread.join();
}

}  // namespace
