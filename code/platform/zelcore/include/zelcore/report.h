// Reports (log records with source, category, kind and severity), debug prints and timers.
//
// Reports and prints go to one process-wide sink. The default sink writes one line to stderr
// for records at or above a severity threshold (default: warning); set_report_sink replaces it,
// for example with a capturing sink in tests. report() never throws into its caller.
// Sinks are called on the thread that reports; a sink must be thread-safe if several threads
// report. Replace sinks before starting threads that report.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "zelbase/severity.h"
#include "zelcore/export.h"

namespace zelcore {

using kind = std::uint32_t;

struct report_record {
  std::string file;  // source path of the reporting file, without extension
  std::uint32_t line = 0;
  std::string category;
  kind record_kind = 0;
  zelbase::severity record_severity = 0;
  std::string message;
};

using report_sink = std::function<void(const report_record&)>;

// Writes one record to the sink.
ZELCORE_EXPORT void report(const char* file, std::uint32_t line, const char* category, kind k,
                           zelbase::severity s, const std::string& message) noexcept;
// Replaces the sink (an empty function restores the stderr sink); returns the previous one.
ZELCORE_EXPORT report_sink set_report_sink(report_sink sink);
// The stderr sink writes records whose severity is at most this (0 most urgent); returns the old.
ZELCORE_EXPORT zelbase::severity set_report_threshold(zelbase::severity threshold);

namespace ds {

using print_sink = std::function<void(const std::string& category, const std::string& text)>;

// Debug print, printf-style. Goes to the print sink; the default sink drops prints unless
// enabled with set_print_to_stderr(true).
ZELCORE_EXPORT void print(const char* category, const char* format, ...) noexcept
    __attribute__((format(printf, 2, 3)));
ZELCORE_EXPORT print_sink set_print_sink(print_sink sink);
ZELCORE_EXPORT void set_print_to_stderr(bool enabled);

// Measures the time since construction.
class ZELCORE_EXPORT timer {
 public:
  explicit timer(std::string name);
  // Elapsed seconds; with `to_print` also writes "<name>: <seconds> s" as a debug print.
  double print(bool to_print) const;

 private:
  std::string name_;
  std::int64_t start_ns_;
};

}  // namespace ds
}  // namespace zelcore
