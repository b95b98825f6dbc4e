// The log sink: the kit's own diagnostics reach an application's sink with
// their level and subsystem, and clearing it brings back the default output.
#include <NimbFoundation/Platform/Env/Log.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Env/SystemLog.h>
#include <NimbFoundation/Utils/VQUtils.h>

#include "TestSupport.h"

using nimb::LogLevel;
using nimb::test::captureOutput;

namespace {
using Entry = std::tuple<LogLevel, std::string, std::string>;
}

TEST(Log, SinkReceivesTheKitsDiagnosticsAndClearingRestoresTheDefault) {
  std::vector<Entry> got;
  nimb::setLogSink([&](LogLevel level, std::string_view subsystem, std::string_view message) {
    got.emplace_back(level, subsystem, message);
    // A log from inside the sink goes to the default output, not back here.
    if (subsystem == "SystemLog") nimb::logMessage(LogLevel::kDebug, "Test", "nested");
  });
  EXPECT_TRUE(nimb::hasLogSink());
  auto& loop = nimb::RunLoop::current();
  nimb::VQUtils::setOpenLog(true);
  std::string stderrText;
  const std::string stdoutText = captureOutput(1, [&] {
    stderrText = captureOutput(2, [&] {
      loop.perform([] { throw std::runtime_error("boom"); });
      loop.runUntilIdle(1);
      nimb::SystemLog::log("x=%d", 7);
      nimb::VQUtils::outLog("hello %s", "there");
      nimb::logMessage(LogLevel::kWarning, "App", "own");
    });
  });
  nimb::VQUtils::setOpenLog(false);
  EXPECT_EQ(got, (std::vector<Entry>{
                     {LogLevel::kError, "RunLoop", "RunLoop: a performed task threw: boom"},
                     {LogLevel::kError, "SystemLog", "x=7"},
                     {LogLevel::kInfo, "VQUtils", "hello there"},
                     {LogLevel::kWarning, "App", "own"},
                 }));
  EXPECT_EQ(stdoutText, "");
  EXPECT_NE(stderrText.find("] Test: nested\n"), std::string::npos) << stderrText;
  EXPECT_EQ(stderrText.find("boom"), std::string::npos);

  nimb::setLogSink(nullptr);
  EXPECT_FALSE(nimb::hasLogSink());
  const std::string restored = captureOutput(2, [&] {
    loop.perform([] { throw std::runtime_error("boom"); });
    loop.runUntilIdle(1);
  });
  EXPECT_EQ(restored, "RunLoop: a performed task threw: boom\n");
  EXPECT_EQ(got.size(), 4u);
}
