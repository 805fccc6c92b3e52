// Batches of the replica's changes as Server-Sent Events, and snapshots for new and lagging
// clients.
#include "serve/event_feed.h"

#include <algorithm>

#include "json_output.h"
#include "json_writer.h"
#include "kinds.h"
#include "replica_json.h"
#include "serve/json_pieces.h"
#include "time_text.h"

namespace zelctl::serve {
namespace {

std::shared_ptr<const std::string> event_text(const char* name, std::uint64_t seq,
                                              const nlohmann::json& data) {
  return std::make_shared<const std::string>(std::string("event: ") + name +
                                             "\nid: " + std::to_string(seq) +
                                             "\ndata: " + json_text(data, false) + "\n\n");
}

}  // namespace

event_feed::event_feed(boost::asio::io_context& io, const feed_options& options)
    : timer_(io), options_(options), last_write_(std::chrono::steady_clock::now()) {}

event_feed::~event_feed() { *alive_ = false; }

void event_feed::start() {
  note_sent_workflows();
  arm();
}

void event_feed::note_sent_workflows() {
  sent_workflows_.clear();
  if (replica_ == nullptr) return;
  const nlohmann::json live = kind_json(*replica_, "workflows");
  for (const auto& [id, workflow] : live.items()) sent_workflows_[id] = json_text(workflow, false);
}

void event_feed::arm() {
  timer_.expires_after(options_.batch_interval);
  timer_.async_wait(
      [this, alive = std::weak_ptr<bool>(alive_)](const boost::system::error_code& ec) {
        if (ec || alive.expired()) return;
        flush();
        arm();
      });
}

void event_feed::subscribe(const std::shared_ptr<event_subscriber>& out, const request& in) {
  // The snapshot is then exactly the state after the last batch: the client applies the next
  // batch to it.
  flush();
  const bool full = in.target.param("snapshot") != "none";
  out->send(snapshot_event(full));
  if (link_event_) out->send(link_event_);
  clients_.push_back({out, full});
}

void event_feed::link_changed(const source_status& status) {
  flush();
  nlohmann::json data = status_json(status);
  data["seq"] = seq_;
  link_event_ = event_text("cluster", seq_, data);
  for (const auto& c : clients_) c.out->send(link_event_);
}

outgoing event_feed::snapshot_event(bool full) {
  const std::string head =
      "event: snapshot\nid: " + std::to_string(seq_) + "\ndata: {\"seq\":" + std::to_string(seq_);
  if (!full || replica_ == nullptr) {
    if (!bare_snapshot_ || bare_snapshot_seq_ != seq_) {
      bare_snapshot_ = std::make_shared<const std::string>(head + ",\"state\":null}\n\n");
      bare_snapshot_seq_ = seq_;
    }
    return bare_snapshot_;
  }
  std::shared_ptr<const json_plan> plan = full_snapshot_.lock();
  if (!plan || full_snapshot_seq_ != seq_) {
    auto fresh = std::make_shared<json_plan>();
    fresh->add_text(head + ",\"state\":");
    fresh->add_state(*replica_);
    fresh->add_text("}\n\n");
    plan = std::move(fresh);
    full_snapshot_ = plan;
    full_snapshot_seq_ = seq_;
  }
  return std::shared_ptr<body_pieces>(std::make_shared<json_pieces>(std::move(plan)));
}

void event_feed::add(const std::string& kind, const std::string& id, const char* op,
                     const std::function<void(json_writer&)>& data) {
  ++changes_;
  last_change_ms_ = now_ms();
  append_change(kind, id, op, data);
}

// The members in key order, as a JSON document of the change would print them.
void event_feed::append_change(const std::string& kind, const std::string& id, const char* op,
                               const std::function<void(json_writer&)>& data) {
  if (!pending_.empty()) pending_ += ',';
  json_writer out(pending_, false);
  out.begin_object();
  if (data) {
    out.key("data");
    data(out);
  }
  out.key("id");
  out.value(id);
  out.key("kind");
  out.value(kind);
  out.key("op");
  out.value(op);
  out.end_object();
}

void event_feed::add_workflow_changes() {
  workflows_touched_ = false;
  if (replica_ == nullptr) return;
  const nlohmann::json live = kind_json(*replica_, "workflows");

  for (auto it = sent_workflows_.begin(); it != sent_workflows_.end();) {
    if (live.contains(it->first)) {
      ++it;
      continue;
    }
    append_change("workflows", it->first, "remove", {});
    it = sent_workflows_.erase(it);
  }
  for (const auto& [id, workflow] : live.items()) {
    std::string text = json_text(workflow, false);
    auto& sent = sent_workflows_[id];
    if (sent == text) continue;
    sent = std::move(text);
    append_change("workflows", id, "set", [&](json_writer& out) { out.raw_value(sent); });
  }
}

void event_feed::flush() {
  if (workflows_touched_) add_workflow_changes();
  clients_.erase(std::remove_if(clients_.begin(), clients_.end(),
                                [](const client& c) { return c.out->closed(); }),
                 clients_.end());
  const auto now = std::chrono::steady_clock::now();
  if (resnapshot_) {
    resnapshot_ = false;
    pending_.clear();
    ++seq_;
    for (const auto& c : clients_) c.out->replace_queue(snapshot_event(c.full_snapshots));
    last_write_ = now;
    return;
  }
  if (pending_.empty()) {
    if (now - last_write_ >= options_.keep_alive) {
      const auto comment = std::make_shared<const std::string>(": keep-alive\n\n");
      for (const auto& c : clients_) c.out->send(comment);
      last_write_ = now;
    }
    return;
  }
  ++seq_;
  // {"changes":[...],"seq":N,"workflow-seq-nr":W}, the changes' text as they came.
  std::string data = "{\"changes\":[" + pending_ + "],\"seq\":" + std::to_string(seq_);
  if (replica_ != nullptr) {
    data += ",\"workflow-seq-nr\":" +
            std::to_string(replica_->get_workflow_manager().get_current_sequence_number());
  }
  data += '}';
  pending_.clear();
  const auto text = std::make_shared<const std::string>(
      "event: batch\nid: " + std::to_string(seq_) + "\ndata: " + data + "\n\n");
  for (const auto& c : clients_) {
    if (c.out->queued_bytes() >= options_.max_queue_bytes) {
      ++laggards_;
      c.out->replace_queue(snapshot_event(c.full_snapshots));
    } else {
      c.out->send(text);
    }
  }
  last_write_ = now;
}

bool event_feed::state_item_updated(zelcapi::state_item_type type, const std::string& id,
                                    const zelcore::properties& props) {
  add(snapshot_key_of(type), id, "update", [&](json_writer& out) { out.value(props); });
  return true;
}

bool event_feed::state_item_set(zelcapi::state_item_type type, const std::string& id,
                                const zelcore::properties& props) {
  add(snapshot_key_of(type), id, "set", [&](json_writer& out) { out.value(props); });
  return true;
}

bool event_feed::state_item_removed(zelcapi::state_item_type type, const std::string& id) {
  add(snapshot_key_of(type), id, "remove", {});
  return true;
}

bool event_feed::state_item_erased_property_ref(zelcapi::state_item_type type,
                                                const std::string& id, const std::string& ref) {
  add(snapshot_key_of(type), id, "erase", [&](json_writer& out) { out.value(ref); });
  return true;
}

bool event_feed::state_item_historized(zelcapi::state_item_type type, const std::string& id) {
  add(snapshot_key_of(type), id, "historize", {});
  return true;
}

bool event_feed::state_workflow_result_added(const std::string& id,
                                             zelcapi::workflow_result_info result) {
  zelcore::properties encoded;
  result.encode(encoded);
  add("workflow-results", id, "set", [&](json_writer& out) { out.value(encoded); });
  workflows_touched_ = true;
  return true;
}

bool event_feed::state_workflow_result_removed(const std::string& id) {
  add("workflow-results", id, "remove", {});
  workflows_touched_ = true;
  return true;
}

// The add and remove notifications leave the replica alone, but say that workflows move.
bool event_feed::state_workflow_added(const std::string&, const zelcore::properties&) {
  workflows_touched_ = true;
  return true;
}

bool event_feed::state_workflow_removed(const std::string&) {
  workflows_touched_ = true;
  return true;
}

bool event_feed::state_workflow_updated(const zelcore::properties&) {
  ++changes_;
  last_change_ms_ = now_ms();
  workflows_touched_ = true;
  return true;
}

bool event_feed::state_new_state(const zelcore::properties&) {
  // Everything is new: every client starts again from a snapshot.
  resnapshot_ = true;
  workflows_touched_ = false;
  note_sent_workflows();
  if (on_snapshot_) on_snapshot_();
  return true;
}

void event_feed::disconnected(const std::string& reason, bool) {
  if (on_lost_) on_lost_(reason);
}

}  // namespace zelctl::serve
