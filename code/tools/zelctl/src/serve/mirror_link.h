// A mirror's PostgreSQL database as the source of zelctl serve's replica (serve --from): the
// mirror's last save is loaded at the start, then a thread of the link waits for the
// announcement of each save the mirror commits and fetches only what the save wrote and removed;
// the io_context's thread applies it to the replica and tells the handler of each change, as a
// state connection would. A link that fails (the server restarted, the network gone) is tried
// again on the mirror's pace (retry_backoff) and then catches up, loading everything again only
// when the database no longer keeps what it missed. The pages and the API keep answering from
// the last state meanwhile.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <boost/asio/io_context.hpp>

#include "retry_backoff.h"
#include "serve/event_feed.h"
#include "serve/replica_source.h"
#include "zelcapi/postgres_db.h"
#include "zelcapi/state.h"
#include "zelcapi/state_connection.h"

namespace zelctl::serve {

class mirror_link final : public replica_source {
 public:
  // Reads the mirror's last save through `reader` into `replica` on the calling thread, telling
  // `handler` (which passes to `feed`). Raises es::uspec when the database cannot be read.
  mirror_link(boost::asio::io_context& io, zelcapi::state& replica,
              const zelcore::plugin_db& plugins, zelcapi::state_handler& handler, event_feed& feed,
              std::unique_ptr<zelcapi::postgres_save_reader> reader);
  // Stops the link's thread.
  ~mirror_link() override;
  mirror_link(const mirror_link&) = delete;
  mirror_link& operator=(const mirror_link&) = delete;

  // Starts following the mirror's saves.
  void start();
  const source_status& status() const override { return status_; }

 private:
  // The link's thread: catch up, wait for the next save, again; on a failure wait and retry.
  void follow();
  // Waits `wait` unless the link stops meanwhile; false when it stops.
  bool pause(std::chrono::milliseconds wait);

  // On the io_context's thread.
  void apply(const zelcapi::save_changes& changes);
  void apply_whole(const zelcapi::save_changes& changes);
  void apply_workflows(const zelcapi::save_changes& changes);
  void apply_results(const zelcore::properties& results);
  // The workflow of a save's row; null, with a line, when it cannot be read (the rest of the
  // save still applies).
  zelcapi::state::workflow_ptr read_workflow(const std::string& id,
                                             const zelcore::property& encoded, std::uint64_t save);
  void failed(const std::string& error, retry_backoff::duration wait);
  void restored();

  boost::asio::io_context& io_;
  zelcapi::state& replica_;
  const zelcore::plugin_db& plugins_;
  zelcapi::state_handler& handler_;
  event_feed& feed_;
  std::unique_ptr<zelcapi::postgres_save_reader> reader_;  // the link's thread's once started
  std::uint64_t held_ = 0;  // the save that the replica holds (its thread's)
  source_status status_;    // the io_context's thread's
  std::mutex stop_lock_;
  std::condition_variable stop_changed_;
  bool stopping_ = false;
  std::thread thread_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace zelctl::serve
