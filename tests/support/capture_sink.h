// Test support: captures reports and debug prints while in scope, restoring the previous sinks
// afterwards, so tests can assert exact texts, categories, kinds and severities.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "zelcore/report.h"

namespace zeltest {

struct captured_print {
  std::string category;
  std::string text;
};

class capture_sink {
 public:
  capture_sink();
  ~capture_sink();
  capture_sink(const capture_sink&) = delete;
  capture_sink& operator=(const capture_sink&) = delete;

  std::vector<zelcore::report_record> reports() const;
  std::vector<captured_print> prints() const;
  // The messages of the reports, in order.
  std::vector<std::string> messages() const;
  void clear();

 private:
  mutable std::mutex lock_;
  std::vector<zelcore::report_record> reports_;
  std::vector<captured_print> prints_;
  zelcore::report_sink previous_reports_;
  zelcore::ds::print_sink previous_prints_;
};

}  // namespace zeltest
