// The metrics text: HELP and TYPE lines, labels escaped as the exposition format requires, values
// written exactly; promtool accepts what it writes for any label text and refuses the same text
// unescaped.
#include "metrics.h"

#include <gtest/gtest.h>

#include <limits>

#include "metrics_support.h"

namespace {

TEST(MetricsText, FamiliesAndSamplesAreWrittenAsLines) {
  zelctl::metrics_text out;
  out.family("zelcapi_things_total", "counter", "Things counted.");
  out.sample("zelcapi_things_total", std::uint64_t{18446744073709551615u});
  out.family("zelcapi_level", "gauge", "A level.");
  out.sample("zelcapi_level", {{"kind", "jobs"}, {"state", "running"}}, 0.25);
  EXPECT_EQ(out.text(),
            "# HELP zelcapi_things_total Things counted.\n"
            "# TYPE zelcapi_things_total counter\n"
            "zelcapi_things_total 18446744073709551615\n"
            "# HELP zelcapi_level A level.\n"
            "# TYPE zelcapi_level gauge\n"
            "zelcapi_level{kind=\"jobs\",state=\"running\"} 0.25\n");
}

TEST(MetricsText, LabelValuesAndHelpAreEscaped) {
  zelctl::metrics_text out;
  out.family("zelcapi_jobs", "gauge", "Back\\slash, \"quotes\"\nand a new line.");
  out.sample("zelcapi_jobs", {{"state", "a\"b\\c\nd}e,f=g"}}, std::uint64_t{3});
  EXPECT_EQ(out.text(),
            "# HELP zelcapi_jobs Back\\\\slash, \"quotes\"\\nand a new line.\n"
            "# TYPE zelcapi_jobs gauge\n"
            "zelcapi_jobs{state=\"a\\\"b\\\\c\\nd}e,f=g\"} 3\n");
}

TEST(MetricsText, ValuesAreExactOrNamed) {
  EXPECT_EQ(zelctl::metric_value_text(0.005), "0.005");
  EXPECT_EQ(zelctl::metric_value_text(2.5e-7), "2.5e-07");
  EXPECT_EQ(zelctl::metric_value_text(1e21), "1e+21");
  EXPECT_EQ(zelctl::metric_value_text(12), "12");
  EXPECT_EQ(zelctl::metric_value_text(100000), "100000");
  EXPECT_EQ(zelctl::metric_value_text(-3), "-3");
  EXPECT_EQ(zelctl::metric_value_text(0.1 + 0.2), "0.30000000000000004");
  EXPECT_EQ(zelctl::metric_value_text(std::numeric_limits<double>::infinity()), "+Inf");
  EXPECT_EQ(zelctl::metric_value_text(-std::numeric_limits<double>::infinity()), "-Inf");
  EXPECT_EQ(zelctl::metric_value_text(std::numeric_limits<double>::quiet_NaN()), "NaN");
}

TEST(MetricsText, PromtoolAcceptsAnyLabelTextEscaped) {
  const std::string promtool = zelctl_test::prometheus_program("promtool");
  if (promtool.empty()) GTEST_SKIP() << "promtool is not installed";
  const std::string nasty = "q\"uote \\back\nline {brace} ünïcode";
  zelctl::metrics_text out;
  out.family("zelcapi_jobs", "gauge", "Jobs in the replica, by state.");
  out.sample("zelcapi_jobs", {{"state", nasty}}, std::uint64_t{1});
  out.sample("zelcapi_jobs", {{"state", ""}}, std::uint64_t{2});
  const auto accepted = zeltest::run_program(promtool, {"check", "metrics"}, out.text());
  EXPECT_EQ(accepted.code, 0) << accepted.out << accepted.err << out.text();
  // The same sample unescaped is refused: the check does look at the labels.
  const std::string raw =
      "# HELP zelcapi_jobs Jobs.\n# TYPE zelcapi_jobs gauge\n"
      "zelcapi_jobs{state=\"" +
      nasty + "\"} 1\n";
  const auto refused = zeltest::run_program(promtool, {"check", "metrics"}, raw);
  EXPECT_NE(refused.code, 0) << raw;
}

}  // namespace
