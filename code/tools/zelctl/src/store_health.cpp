// The mirror's store health: one outage at a time, its beginning and end kept for the main
// thread to say.
#include "store_health.h"

#include <utility>

namespace zelctl {

void store_health::_begin(const std::string& error) {
  save_committed_ = false;
  if (failing_) return;
  failing_ = true;
  since_ = clock::now();
  counts_ = {};
  began_ = began{error};
}

void store_health::save_failed(const std::string& error) {
  std::lock_guard<std::mutex> hold(lock_);
  _begin(error);
  counts_.saves_not_written += 1 + std::exchange(skips_, 0);
}

void store_health::save_skipped() {
  std::lock_guard<std::mutex> hold(lock_);
  if (failing_ && !save_committed_)
    ++counts_.saves_not_written;
  else
    ++skips_;
}

void store_health::save_committed() {
  std::lock_guard<std::mutex> hold(lock_);
  save_committed_ = true;
  if (skips_ > 0) skipped_ = skipped_.value_or(0) + std::exchange(skips_, 0);
}

bool store_health::may_write_history() const {
  std::lock_guard<std::mutex> hold(lock_);
  return !failing_ || save_committed_;
}

void store_health::history_held(std::uint64_t writes) {
  std::lock_guard<std::mutex> hold(lock_);
  if (failing_) counts_.history_writes_held = writes;
}

void store_health::history_failed(const std::string& error) {
  std::lock_guard<std::mutex> hold(lock_);
  _begin(error);
}

void store_health::history_written() {
  std::lock_guard<std::mutex> hold(lock_);
  if (!failing_ || !save_committed_) return;
  failing_ = false;
  counts_.seconds = std::chrono::duration<double>(clock::now() - since_).count();
  ended_ = counts_;
}

bool store_health::failing() const {
  std::lock_guard<std::mutex> hold(lock_);
  return failing_;
}

std::optional<store_health::began> store_health::take_began() {
  std::lock_guard<std::mutex> hold(lock_);
  return std::exchange(began_, std::nullopt);
}

std::optional<store_health::outage_end> store_health::take_ended() {
  std::lock_guard<std::mutex> hold(lock_);
  return std::exchange(ended_, std::nullopt);
}

std::optional<std::uint64_t> store_health::take_skipped() {
  std::lock_guard<std::mutex> hold(lock_);
  return std::exchange(skipped_, std::nullopt);
}

}  // namespace zelctl
