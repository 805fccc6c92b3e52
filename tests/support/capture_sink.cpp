// Test support: the capturing report and print sink.
#include "support/capture_sink.h"

namespace zeltest {

capture_sink::capture_sink() {
  previous_reports_ = zelcore::set_report_sink([this](const zelcore::report_record& r) {
    std::lock_guard<std::mutex> hold(lock_);
    reports_.push_back(r);
  });
  previous_prints_ =
      zelcore::ds::set_print_sink([this](const std::string& category, const std::string& text) {
        std::lock_guard<std::mutex> hold(lock_);
        prints_.push_back({category, text});
      });
}

capture_sink::~capture_sink() {
  zelcore::set_report_sink(std::move(previous_reports_));
  zelcore::ds::set_print_sink(std::move(previous_prints_));
}

std::vector<zelcore::report_record> capture_sink::reports() const {
  std::lock_guard<std::mutex> hold(lock_);
  return reports_;
}

std::vector<captured_print> capture_sink::prints() const {
  std::lock_guard<std::mutex> hold(lock_);
  return prints_;
}

std::vector<std::string> capture_sink::messages() const {
  std::lock_guard<std::mutex> hold(lock_);
  std::vector<std::string> out;
  for (const auto& r : reports_) out.push_back(r.message);
  return out;
}

void capture_sink::clear() {
  std::lock_guard<std::mutex> hold(lock_);
  reports_.clear();
  prints_.clear();
}

}  // namespace zeltest
