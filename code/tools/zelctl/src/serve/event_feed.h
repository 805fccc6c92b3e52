// The change stream of zelctl serve: hears every change of the replica (it is the state
// connection's handler), gathers them into batches and writes each batch, a few times a second,
// to every event-stream client as one Server-Sent Event. A client that has fallen more than a
// queue's worth behind gets its queue replaced by a fresh snapshot event; one whose write stays
// stuck past the write limit is dropped by its connection. Runs on the io_context's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <nlohmann/json.hpp>

#include "json_writer.h"
#include "serve/http_server.h"
#include "serve/json_pieces.h"
#include "serve/replica_source.h"
#include "zelcapi/state_connection.h"

namespace zelctl::serve {

struct feed_options {
  std::chrono::milliseconds batch_interval{250};
  std::chrono::milliseconds keep_alive{15000};    // a comment line when nothing changed
  std::size_t max_queue_bytes = 8 * 1024 * 1024;  // unwritten per client: then a snapshot
};

class event_feed final : public zelcapi::state_handler {
 public:
  event_feed(boost::asio::io_context& io, const feed_options& options);
  ~event_feed() override;

  // The replica whose changes the feed hears; before the first change.
  void attach(const zelcapi::state& replica) { replica_ = &replica; }
  // Starts the batch timer; the replica holds its first snapshot.
  void start();
  // A new event-stream client: it gets a snapshot event at once ("?snapshot=none": one without
  // the state, for clients that read the API instead) and a cluster event (the link's status),
  // then every batch.
  void subscribe(const std::shared_ptr<event_subscriber>& client, const request& in);
  // The link's status changed: every client gets a cluster event, after the batch of the changes
  // before it.
  void link_changed(const source_status& status);
  // What the replica's source hears through the feed (the connection's only handler): the link
  // went (with the reason), a snapshot replaced the replica. Empty functions: nobody listens.
  void on_link(std::function<void(const std::string&)> lost, std::function<void()> snapshot) {
    on_lost_ = std::move(lost);
    on_snapshot_ = std::move(snapshot);
  }

  std::uint64_t changes() const noexcept { return changes_; }
  std::uint64_t batches() const noexcept { return seq_; }
  std::size_t clients() const noexcept { return clients_.size(); }
  std::uint64_t snapshots_for_laggards() const noexcept { return laggards_; }
  // Wall-clock time of the last change (0: none yet), in milliseconds since 1970.
  std::int64_t last_change_ms() const noexcept { return last_change_ms_; }

  // zelcapi::state_handler
  bool state_item_updated(zelcapi::state_item_type type, const std::string& id,
                          const zelcore::properties& props) override;
  bool state_item_set(zelcapi::state_item_type type, const std::string& id,
                      const zelcore::properties& props) override;
  bool state_item_removed(zelcapi::state_item_type type, const std::string& id) override;
  bool state_item_erased_property_ref(zelcapi::state_item_type type, const std::string& id,
                                      const std::string& ref) override;
  bool state_item_historized(zelcapi::state_item_type type, const std::string& id) override;
  bool state_workflow_result_added(const std::string& id,
                                   zelcapi::workflow_result_info result) override;
  bool state_workflow_result_removed(const std::string& id) override;
  bool state_workflow_added(const std::string& id, const zelcore::properties& workflow) override;
  bool state_workflow_removed(const std::string& id) override;
  bool state_workflow_updated(const zelcore::properties& command) override;
  bool state_new_state(const zelcore::properties& state) override;
  void disconnected(const std::string& reason, bool reconnecting) override;

 private:
  struct client {
    std::shared_ptr<event_subscriber> out;
    bool full_snapshots;
  };

  // Counts a change and adds it to the next batch; `data` writes its "data" member (none when
  // empty).
  void add(const std::string& kind, const std::string& id, const char* op,
           const std::function<void(json_writer&)>& data);
  // Adds a change to the next batch without counting it (a workflow's, found at the batch).
  void append_change(const std::string& kind, const std::string& id, const char* op,
                     const std::function<void(json_writer&)>& data);
  void arm();
  void flush();
  // Workflows change through commands: the batch carries each changed workflow whole.
  void add_workflow_changes();
  // The workflows as every client has them now (after a snapshot).
  void note_sent_workflows();
  // The snapshot event (with or without the state) as of the last batch: the state frozen once
  // per batch, and written in pieces to each client that needs it.
  outgoing snapshot_event(bool full);

  boost::asio::steady_timer timer_;
  feed_options options_;
  const zelcapi::state* replica_ = nullptr;
  std::vector<client> clients_;
  std::string pending_;  // the next batch's changes as JSON text, separated by commas
  bool workflows_touched_ = false;
  bool resnapshot_ = false;
  std::map<std::string, std::string> sent_workflows_;  // id -> its JSON text as last sent
  std::uint64_t seq_ = 0;
  std::uint64_t changes_ = 0;
  std::uint64_t laggards_ = 0;
  std::int64_t last_change_ms_ = 0;
  std::chrono::steady_clock::time_point last_write_;
  // Kept while a client still writes it, for the clients that need the same one.
  std::weak_ptr<const json_plan> full_snapshot_;
  std::shared_ptr<const std::string> bare_snapshot_;
  std::uint64_t full_snapshot_seq_ = 0;
  std::uint64_t bare_snapshot_seq_ = 0;
  std::shared_ptr<const std::string> link_event_;  // the last cluster event
  std::function<void(const std::string&)> on_lost_;
  std::function<void()> on_snapshot_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace zelctl::serve
