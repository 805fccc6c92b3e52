// Reports and debug prints reach the installed sink with every field; timers measure.
#include <gtest/gtest.h>

#include <thread>

#include "support/capture_sink.h"
#include "zelcore/report.h"

TEST(Report, CapturingSinkReceivesEveryField) {
  zeltest::capture_sink sink;
  zelcore::report("code\\x\\src\\api", 42, "zelcapi", 3, 4, "time-out");
  const auto reports = sink.reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].file, "code\\x\\src\\api");
  EXPECT_EQ(reports[0].line, 42u);
  EXPECT_EQ(reports[0].category, "zelcapi");
  EXPECT_EQ(reports[0].record_kind, 3u);
  EXPECT_EQ(reports[0].record_severity, 4u);
  EXPECT_EQ(reports[0].message, "time-out");
}

TEST(Report, PreviousSinkIsRestoredAfterCapture) {
  zeltest::capture_sink outer;
  {
    zeltest::capture_sink inner;
    zelcore::report("f", 1, "c", 1, 1, "inner");
    EXPECT_EQ(inner.messages(), std::vector<std::string>{"inner"});
  }
  zelcore::report("f", 1, "c", 1, 1, "outer");
  EXPECT_EQ(outer.messages(), std::vector<std::string>{"outer"});
}

TEST(Report, ASinkThatThrowsDoesNotReachTheCaller) {
  const auto previous = zelcore::set_report_sink(
      [](const zelcore::report_record&) { throw std::runtime_error("sink failed"); });
  EXPECT_NO_THROW(zelcore::report("f", 1, "c", 1, 1, "m"));
  zelcore::set_report_sink(previous);
}

TEST(Report, DefaultSinkWritesOnlyUpToTheThreshold) {
  const auto previous = zelcore::set_report_sink(nullptr);
  const auto old_threshold = zelcore::set_report_threshold(3);
  testing::internal::CaptureStderr();
  zelcore::report("file", 7, "cat", 8, 3, "shown");
  zelcore::report("file", 8, "cat", 8, 4, "hidden");
  const std::string err = testing::internal::GetCapturedStderr();
  zelcore::set_report_threshold(old_threshold);
  zelcore::set_report_sink(previous);
  EXPECT_NE(err.find("shown"), std::string::npos);
  EXPECT_EQ(err.find("hidden"), std::string::npos);
  EXPECT_NE(err.find("[cat]"), std::string::npos);
}

TEST(DebugPrint, FormatsAndReachesTheSinkWithItsCategory) {
  zeltest::capture_sink sink;
  zelcore::ds::print("zelcapi::state_handler:debug", "%s %d", "value", 7);
  const auto prints = sink.prints();
  ASSERT_EQ(prints.size(), 1u);
  EXPECT_EQ(prints[0].category, "zelcapi::state_handler:debug");
  EXPECT_EQ(prints[0].text, "value 7");
}

TEST(DebugTimer, MeasuresElapsedSeconds) {
  const zelcore::ds::timer timer("State saving timer");
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const double seconds = timer.print(false);
  EXPECT_GE(seconds, 0.019);
  EXPECT_LT(seconds, 5.0);
}
