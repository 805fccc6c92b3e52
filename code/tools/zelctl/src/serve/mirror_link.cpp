// Following a mirror's saves: the reading on the link's thread, the changes applied on the
// io_context's thread in the order of the saves.
#include "serve/mirror_link.h"

#include <boost/asio/post.hpp>
#include <boost/make_shared.hpp>

#include "kinds.h"
#include "serve/link_log.h"
#include "time_text.h"
#include "zelbase/exceptions.h"

namespace zelctl::serve {

namespace {

constexpr zelcapi::state_item_type record_kinds[] = {
    zelcapi::state_item_client, zelcapi::state_item_node, zelcapi::state_item_submission,
    zelcapi::state_item_source, zelcapi::state_item_slot, zelcapi::state_item_job,
    zelcapi::state_item_task};

// How long the link's thread waits for an announcement before it looks whether it should stop.
constexpr std::chrono::milliseconds stop_check{200};

}  // namespace

mirror_link::mirror_link(boost::asio::io_context& io, zelcapi::state& replica,
                         const zelcore::plugin_db& plugins, zelcapi::state_handler& handler,
                         event_feed& feed, std::unique_ptr<zelcapi::postgres_save_reader> reader)
    : io_(io),
      replica_(replica),
      plugins_(plugins),
      handler_(handler),
      feed_(feed),
      reader_(std::move(reader)) {
  status_.source = "mirror";
  status_.address = reader_->server();
  const zelcapi::save_changes first = reader_->read_since(0);
  held_ = first.save;
  apply(first);
  feed_.link_changed(status_);
}

mirror_link::~mirror_link() {
  *alive_ = false;
  {
    std::lock_guard<std::mutex> hold(stop_lock_);
    stopping_ = true;
  }
  stop_changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void mirror_link::start() {
  thread_ = std::thread([this] { follow(); });
}

bool mirror_link::pause(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> hold(stop_lock_);
  return !stop_changed_.wait_for(hold, wait, [this] { return stopping_; });
}

void mirror_link::follow() {
  retry_backoff backoff;
  bool failing = false;
  while (pause(std::chrono::milliseconds(0))) {
    try {
      auto changes = std::make_shared<zelcapi::save_changes>(reader_->read_since(held_));
      if (failing) {
        failing = false;
        backoff.reset();
        boost::asio::post(io_, [this, alive = std::weak_ptr<bool>(alive_)] {
          if (!alive.expired()) restored();
        });
      }
      if (changes->save != held_) {
        held_ = changes->save;
        boost::asio::post(io_, [this, changes, alive = std::weak_ptr<bool>(alive_)] {
          if (!alive.expired()) apply(*changes);
        });
      }
      while (!reader_->wait_for_save(stop_check)) {
        if (!pause(std::chrono::milliseconds(0))) return;
      }
    } catch (const zelbase::es::base& e) {
      failing = true;
      const retry_backoff::duration wait = backoff.next();
      boost::asio::post(io_,
                        [this, error = e.message(), wait, alive = std::weak_ptr<bool>(alive_)] {
                          if (!alive.expired()) failed(error, wait);
                        });
      if (!pause(wait)) return;
    }
  }
}

void mirror_link::apply(const zelcapi::save_changes& changes) {
  status_.save = changes.save;
  if (changes.whole) {
    apply_whole(changes);
  } else {
    // A record removed and written again since is among the written ones only.
    for (const zelcapi::state_item_type type : record_kinds) {
      for (const std::string& id : changes.removed[type]) {
        handler_.state_item_removed(type, id);
        replica_.item_remove(type, id);
      }
      for (const auto& [id, record] : *changes.items[type]) {
        const auto& tree = static_cast<const zelcore::properties&>(*record);
        replica_.item_set(type, id, tree);
        handler_.state_item_set(type, id, tree);
      }
    }
    apply_workflows(changes);
    if (changes.workflow_results) apply_results(*changes.workflow_results);
    replica_.get_workflow_manager().set_current_sequence_number(changes.workflow_sequence_number);
  }
  feed_.link_changed(status_);
}

void mirror_link::apply_whole(const zelcapi::save_changes& changes) {
  zelcore::properties snapshot(false);
  for (const zelcapi::state_item_type type : record_kinds)
    snapshot.set_properties_value(snapshot_key_of(type), *changes.items[type]);
  snapshot.set_properties_value("workflow-results", *changes.workflow_results);
  snapshot.set_int_value("workflow-seq-nr",
                         static_cast<std::int64_t>(changes.workflow_sequence_number));
  replica_.clear_state();
  try {
    replica_.set_state(snapshot);
  } catch (const zelbase::es::base& e) {
    log_link("the mirror's save " + std::to_string(changes.save) +
             " is not whole in the replica: " + e.message());
  }
  auto& workflows = replica_.get_workflows_non_const();
  for (const auto& [id, encoded] : *changes.items[zelcapi::db_item_workflow]) {
    if (auto workflow = read_workflow(id, *encoded, changes.save)) workflows[id] = workflow;
  }
  snapshot.set_properties_value("workflows", *changes.items[zelcapi::db_item_workflow]);
  handler_.state_new_state(snapshot);
}

zelcapi::state::workflow_ptr mirror_link::read_workflow(const std::string& id,
                                                        const zelcore::property& encoded,
                                                        std::uint64_t save) {
  auto workflow = boost::make_shared<zelworkflow::workflow_info>();
  try {
    workflow->decode_workflow_info(static_cast<const zelcore::properties&>(encoded), plugins_);
  } catch (const zelbase::es::base& e) {
    log_link("workflow '" + id + "' of the mirror's save " + std::to_string(save) +
             " cannot be read: " + e.message());
    return {};
  }
  return workflow;
}

// A workflow written by a save replaces the replica's whole.
void mirror_link::apply_workflows(const zelcapi::save_changes& changes) {
  auto& workflows = replica_.get_workflows_non_const();
  for (const std::string& id : changes.removed[zelcapi::db_item_workflow]) {
    handler_.state_workflow_removed(id);
    workflows.erase(id);
  }
  for (const auto& [id, encoded] : *changes.items[zelcapi::db_item_workflow]) {
    auto workflow = read_workflow(id, *encoded, changes.save);
    if (!workflow) continue;
    workflows[id] = workflow;
    handler_.state_workflow_added(id, static_cast<const zelcore::properties&>(*encoded));
  }
}

void mirror_link::apply_results(const zelcore::properties& results) {
  std::vector<std::string> gone;
  for (const auto& [id, result] : replica_.get_workflow_results()) {
    if (!results.is_present(id)) gone.push_back(id);
  }
  for (const std::string& id : gone) {
    handler_.state_workflow_result_removed(id);
    replica_.workflow_result_remove(id);
  }
  for (const auto& [id, encoded] : results) {
    const zelcapi::workflow_result_info result(static_cast<const zelcore::properties&>(*encoded));
    const zelcapi::workflow_result_info held = replica_.get_workflow_result(id);
    if (replica_.has_workflow_result(id) && held.status == result.status && held.ht == result.ht)
      continue;
    replica_.workflow_result_add(id, result);
    handler_.state_workflow_result_added(id, result);
  }
}

void mirror_link::failed(const std::string& error, retry_backoff::duration wait) {
  if (status_.connected) {
    status_.connected = false;
    status_.lost = error;
    status_.lost_ms = now_ms();
    status_.attempts = 0;
    log_link("lost the mirror's database (" + error + "); retrying in " + seconds_text(wait));
  } else {
    ++status_.attempts;
    log_link(error + "; retrying in " + seconds_text(wait));
  }
  status_.last_error = error;
  status_.next_attempt_ms = now_ms() + wait.count();
  feed_.link_changed(status_);
}

void mirror_link::restored() {
  ++status_.reconnects;
  status_.connected = true;
  status_.lost.clear();
  status_.lost_ms = 0;
  status_.attempts = 0;
  status_.last_error.clear();
  status_.next_attempt_ms = 0;
  log_link("reading the mirror's database at " + status_.address + " again");
  feed_.link_changed(status_);
}

}  // namespace zelctl::serve
