// The rows of a save written on a thread of their own: while the store's writing connection
// takes one batch of rows, the saver's thread takes the digests of the next records and encodes
// them, so that a full save costs about what the database's writes cost instead of the sum of
// both. Rows go in batches, two at a time: one filling, one being written.
//
// The writing thread is the only user of the writing connection while a batch is in flight;
// every other use of the connection waits for it first (drain, wait or discard).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include "zelbase/encoder_network.h"

namespace zelcapi::store_detail {

class save_pipeline {
 public:
  // Writes one row on the pipeline's thread; raises to stop the save's writes.
  using row_writer =
      std::function<void(std::size_t kind, std::string_view id, std::string_view text)>;

  // A batch is handed over when its bytes reach this size: large enough that the hand-over is
  // paid once per hundreds of rows, small enough that the writing thread starts early and the
  // last batch, written after the saver is done, is short (of 64 KiB, 256 KiB and 1 MiB, the
  // full save of 100,000 records was fastest with 256 KiB).
  static constexpr std::size_t batch_bytes = 256 * 1024;

  explicit save_pipeline(row_writer write);
  // Drops what was not written and ends the thread.
  ~save_pipeline();
  save_pipeline(const save_pipeline&) = delete;
  save_pipeline& operator=(const save_pipeline&) = delete;

  // The buffer that the next row's text is appended to, after its id; end_row completes it.
  // A row begun and not ended (its encoding raised) is dropped by the next begin_row or discard.
  zelbase::encoder_network& begin_row(std::size_t kind, std::string_view id);
  // Completes the row begun last and hands the batch to the thread when it is full. Raises the
  // error of an earlier batch's write.
  void end_row();
  // Returns when every row given is written; raises the first error of their writes.
  void drain();
  // Returns when the batch in flight is written, keeping the rows not handed over and any error.
  void wait() noexcept;
  // Drops the rows not written yet and any error; returns once the thread is idle.
  void discard() noexcept;

 private:
  struct row {
    std::uint32_t kind;
    std::size_t at;       // where its id starts in the batch's bytes
    std::size_t id_size;  // its text follows the id
    std::size_t text_size;
    std::size_t end() const noexcept { return at + id_size + text_size; }
  };
  struct batch {
    zelbase::encoder_network bytes;
    std::vector<row> rows;
    void clear() noexcept {
      bytes.clear();
      rows.clear();
    }
  };

  void _hand_over();
  void _wait_idle(std::unique_lock<std::mutex>& hold) noexcept;
  void _run();

  row_writer write_;
  batch batches_[2];
  batch* filling_ = &batches_[0];  // the saver's
  row open_{};                     // the row begun last (its text_size set by end_row)

  std::mutex lock_;
  std::condition_variable changed_;
  batch* writing_ = &batches_[1];    // the thread's while `busy_`
  bool busy_ = false;                // a batch is handed over and not yet written
  std::atomic<bool> cancel_{false};  // the saver dropped the batch in flight: stop writing it
  bool stopping_ = false;            // the thread ends
  std::exception_ptr error_;
  std::thread thread_;  // started by the first batch handed over
};

}  // namespace zelcapi::store_detail
