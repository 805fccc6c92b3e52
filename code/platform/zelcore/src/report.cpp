// Reports, debug prints and timers through replaceable sinks.
#include "zelcore/report.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "zelbase/strings.h"

namespace zelcore {

namespace {

struct sinks {
  std::mutex lock;
  report_sink reports;
  ds::print_sink prints;
  zelbase::severity threshold = zelbase::severity_warning;
  bool prints_to_stderr = false;
};

sinks& the_sinks() {
  static sinks s;
  return s;
}

void write_to_stderr(const report_record& r) {
  std::fprintf(stderr, "[%s] %s (%s:%u kind %u severity %u)\n", r.category.c_str(),
               r.message.c_str(), r.file.c_str(), r.line, r.record_kind, r.record_severity);
}

}  // namespace

void report(const char* file, std::uint32_t line, const char* category, kind k, zelbase::severity s,
            const std::string& message) noexcept {
  try {
    report_record record{file ? file : "", line, category ? category : "", k, s, message};
    sinks& all = the_sinks();
    report_sink sink;
    zelbase::severity threshold;
    {
      std::lock_guard<std::mutex> hold(all.lock);
      sink = all.reports;
      threshold = all.threshold;
    }
    if (sink)
      sink(record);
    else if (s <= threshold)
      write_to_stderr(record);
  } catch (...) {
    // A report must never fail its caller.
  }
}

report_sink set_report_sink(report_sink sink) {
  sinks& all = the_sinks();
  std::lock_guard<std::mutex> hold(all.lock);
  std::swap(all.reports, sink);
  return sink;
}

zelbase::severity set_report_threshold(zelbase::severity threshold) {
  sinks& all = the_sinks();
  std::lock_guard<std::mutex> hold(all.lock);
  std::swap(all.threshold, threshold);
  return threshold;
}

namespace ds {

void print(const char* category, const char* format, ...) noexcept {
  try {
    sinks& all = the_sinks();
    print_sink sink;
    bool to_stderr;
    {
      std::lock_guard<std::mutex> hold(all.lock);
      sink = all.prints;
      to_stderr = all.prints_to_stderr;
    }
    if (!sink && !to_stderr) return;
    va_list args;
    va_start(args, format);
    const std::string text = zelbase::string_with_vformat(format, args);
    va_end(args);
    const std::string cat = category ? category : "";
    if (sink)
      sink(cat, text);
    else
      std::fprintf(stderr, "[%s] %s\n", cat.c_str(), text.c_str());
  } catch (...) {
    // A debug print must never fail its caller.
  }
}

print_sink set_print_sink(print_sink sink) {
  sinks& all = the_sinks();
  std::lock_guard<std::mutex> hold(all.lock);
  std::swap(all.prints, sink);
  return sink;
}

void set_print_to_stderr(bool enabled) {
  sinks& all = the_sinks();
  std::lock_guard<std::mutex> hold(all.lock);
  all.prints_to_stderr = enabled;
}

namespace {
std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}
}  // namespace

timer::timer(std::string name) : name_(std::move(name)), start_ns_(now_ns()) {}

double timer::print(bool to_print) const {
  const double seconds = static_cast<double>(now_ns() - start_ns_) / 1e9;
  if (to_print) ds::print("zelcore::timer", "%s: %f s", name_.c_str(), seconds);
  return seconds;
}

}  // namespace ds
}  // namespace zelcore
