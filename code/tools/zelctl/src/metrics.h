// Metrics in the Prometheus text exposition format (version 0.0.4): families with their HELP
// and TYPE lines, samples with labels, the label values escaped as the format requires. Built
// anew at each scrape from counters kept where things happen.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zelctl {

// The Content-Type of the text a metrics_text builds.
inline constexpr const char* metrics_content_type = "text/plain; version=0.0.4; charset=utf-8";

// Observations counted into buckets by upper bound, with their sum: a histogram's figures.
struct histogram_counts {
  explicit histogram_counts(std::vector<double> upper_bounds)
      : bounds(std::move(upper_bounds)), buckets(bounds.size(), 0) {}
  // Counts `value` into the first bucket whose bound is at least it (none: only +Inf).
  void observe(double value);

  std::vector<double> bounds;          // ascending
  std::vector<std::uint64_t> buckets;  // observations per bound, not cumulative
  double sum = 0;
  std::uint64_t count = 0;
};

class metrics_text {
 public:
  using label = std::pair<std::string_view, std::string_view>;

  // Starts a family: its HELP and TYPE ("counter", "gauge", "histogram") lines. `name` is a
  // valid metric name (a constant of the program); `help` may hold any text.
  void family(std::string_view name, std::string_view type, std::string_view help);
  // One sample of the family begun last (`name` is the family's name, or it with "_bucket",
  // "_sum" or "_count" for a histogram); label values may hold any text.
  void sample(std::string_view name, std::initializer_list<label> labels, double value);
  void sample(std::string_view name, std::initializer_list<label> labels, std::uint64_t value);
  void sample(std::string_view name, double value) { sample(name, {}, value); }
  void sample(std::string_view name, std::uint64_t value) { sample(name, {}, value); }

  // A whole histogram family: cumulative "_bucket" samples with "le" (the last "+Inf"), "_sum"
  // and "_count".
  void histogram(std::string_view name, std::string_view help, const histogram_counts& h);

  const std::string& text() const noexcept { return text_; }
  std::string take() { return std::move(text_); }

 private:
  void start_sample(std::string_view name, std::initializer_list<label> labels);
  std::string text_;
};

// A value as the format writes it: shortest exact decimal, "+Inf", "-Inf" or "NaN".
std::string metric_value_text(double value);

}  // namespace zelctl
