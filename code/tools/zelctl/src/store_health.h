// How the mirror's store answers its writes, so that an outage (a server gone, a disk full) is
// said twice, when it begins and when it ends, rather than at every failed write. The first
// failed save or history write begins it; meanwhile the saves failed or skipped are counted and
// the history writes are held, not tried: only saves, on the saver thread, try the store. A save
// that commits lets the main thread write the held history, and when that succeeds too the
// outage ends. The saver thread and the main thread tell it what they saw; the main thread takes
// the news and says them.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace zelctl {

class store_health {
 public:
  // An outage that began: the first failure's text.
  struct began {
    std::string error;
  };
  // An outage that ended: how long it lasted and what it cost.
  struct outage_end {
    double seconds = 0;
    std::uint64_t saves_not_written = 0;    // failed, or skipped while one was still running
    std::uint64_t history_writes_held = 0;  // written once it was back
  };

  // A save failed with `error` (saver thread).
  void save_failed(const std::string& error);
  // A save was asked for while the previous one was still running. The skips are counted until
  // that save ends: into an outage when it fails, as news of slow saves when it commits.
  void save_skipped();
  // A save committed (saver thread).
  void save_committed();
  // Whether the main thread may try to write the history: no outage, or a save committed since
  // the last failure.
  bool may_write_history() const;
  // The history writes held when the main thread tried them (or did not), and how that went.
  void history_held(std::uint64_t writes);
  void history_failed(const std::string& error);
  void history_written();
  // Whether an outage is going on.
  bool failing() const;

  // For the main thread: the outage that began, and the one that ended, since the last call
  // (both, when one came and went between two calls).
  std::optional<began> take_began();
  std::optional<outage_end> take_ended();
  // The saves skipped while a save that then committed was still running.
  std::optional<std::uint64_t> take_skipped();

 private:
  using clock = std::chrono::steady_clock;

  void _begin(const std::string& error);

  mutable std::mutex lock_;
  bool failing_ = false;
  bool save_committed_ = false;  // since the last failure of the outage in progress
  clock::time_point since_{};
  outage_end counts_;        // of the outage in progress
  std::uint64_t skips_ = 0;  // while the save in progress runs
  std::optional<began> began_;
  std::optional<outage_end> ended_;
  std::optional<std::uint64_t> skipped_;
};

}  // namespace zelctl
