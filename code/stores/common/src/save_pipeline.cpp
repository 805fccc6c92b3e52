// The save's rows written on a thread of their own; see save_pipeline.h.
#include "save_pipeline.h"

#include <utility>

namespace zelcapi::store_detail {

save_pipeline::save_pipeline(row_writer write) : write_(std::move(write)) {}

save_pipeline::~save_pipeline() {
  discard();
  {
    std::lock_guard<std::mutex> hold(lock_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

zelbase::encoder_network& save_pipeline::begin_row(std::size_t kind, std::string_view id) {
  filling_->bytes.truncate(filling_->rows.empty() ? 0 : filling_->rows.back().end());
  open_ = {static_cast<std::uint32_t>(kind), filling_->bytes.size(), id.size(), 0};
  filling_->bytes.write(id.data(), id.size());
  return filling_->bytes;
}

void save_pipeline::end_row() {
  open_.text_size = filling_->bytes.size() - open_.at - open_.id_size;
  filling_->rows.push_back(open_);
  if (filling_->bytes.size() >= batch_bytes) _hand_over();
}

void save_pipeline::_hand_over() {
  std::unique_lock<std::mutex> hold(lock_);
  _wait_idle(hold);
  if (error_) std::rethrow_exception(error_);
  std::swap(filling_, writing_);
  filling_->clear();
  busy_ = true;
  if (!thread_.joinable()) thread_ = std::thread([this] { _run(); });
  hold.unlock();
  changed_.notify_all();
}

void save_pipeline::drain() {
  if (!filling_->rows.empty()) _hand_over();
  filling_->clear();
  std::unique_lock<std::mutex> hold(lock_);
  _wait_idle(hold);
  if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
}

void save_pipeline::wait() noexcept {
  std::unique_lock<std::mutex> hold(lock_);
  _wait_idle(hold);
}

void save_pipeline::discard() noexcept {
  filling_->clear();
  cancel_.store(true, std::memory_order_relaxed);
  std::unique_lock<std::mutex> hold(lock_);
  _wait_idle(hold);
  error_ = nullptr;
  cancel_.store(false, std::memory_order_relaxed);
}

void save_pipeline::_wait_idle(std::unique_lock<std::mutex>& hold) noexcept {
  changed_.wait(hold, [this] { return !busy_; });
}

void save_pipeline::_run() {
  std::unique_lock<std::mutex> hold(lock_);
  for (;;) {
    changed_.wait(hold, [this] { return busy_ || stopping_; });
    if (!busy_) return;
    std::exception_ptr failed;
    batch& taken = *writing_;
    hold.unlock();
    try {
      const char* const bytes = taken.bytes.data();
      for (const row& r : taken.rows) {
        if (cancel_.load(std::memory_order_relaxed)) break;
        write_(r.kind, std::string_view(bytes + r.at, r.id_size),
               std::string_view(bytes + r.at + r.id_size, r.text_size));
      }
    } catch (...) {
      failed = std::current_exception();
    }
    taken.clear();
    hold.lock();
    if (failed && !error_) error_ = failed;
    busy_ = false;
    changed_.notify_all();
  }
}

}  // namespace zelcapi::store_detail
