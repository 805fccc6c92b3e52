// The state's history: items and workflows that left the live state, kept in a second state
// owned by this one and/or in the application's history_db, and dropped after the keep time.
#include "item_index.h"
#include "zelbase/exceptions.h"
#include "zelbase/time.h"
#include "zelcapi/state.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\state";

db_item_type db_type_of(state_item_type type) { return static_cast<db_item_type>(type); }

}  // namespace

void state::item_historize(state_item_type type, const std::string& id) {
  detail::item_index& live = index_of(type);
  if (receiver_) receiver_->on_item_historizing(type, id);
  if (history_) {
    history_->item_update(type, id, get_item(type, id));
    item_history_times_.emplace(zelbase::time_in_seconds(), std::make_pair(type, id));
  }
  if (history_db_) history_db_->store_item(db_type_of(type), id, get_item(type, id));
  live.erase(id);
  if (receiver_) receiver_->on_item_historized(type, id);
}

void state::item_add_to_history(state_item_type type, const std::string& id,
                                const zelcore::properties& props) {
  detail::item_index& live = index_of(type);
  if (receiver_) receiver_->on_item_adding_to_history(type, id, props);
  if (history_) {
    history_->item_update(type, id, props);
    item_history_times_.emplace(zelbase::time_in_seconds(), std::make_pair(type, id));
  }
  if (history_db_) history_db_->store_item(db_type_of(type), id, props);
  live.erase(id);
  if (receiver_) receiver_->on_item_added_to_history(type, id, props);
}

void state::clean_history() { clean_history(zelbase::time_in_seconds() - history_keep_time_); }

void state::clean_history(std::uint32_t bound) {
  if (history_) {
    const auto items_end = item_history_times_.upper_bound(bound);
    for (auto it = item_history_times_.begin(); it != items_end; ++it)
      history_->item_remove(it->second.first, it->second.second);
    item_history_times_.erase(item_history_times_.begin(), items_end);

    const auto workflows_end = workflow_history_times_.upper_bound(bound);
    for (auto it = workflow_history_times_.begin(); it != workflows_end; ++it) {
      const auto found = history_->workflows_.find(it->second);
      if (found == history_->workflows_.end()) continue;
      const bool tell = receiver_ && found->second->get_type() ==
                                         zelworkflow::workflow_info::workflow_type_spawned;
      history_->workflows_.erase(found);
      if (tell) receiver_->on_historized_workflow_removed(it->second);
    }
    workflow_history_times_.erase(workflow_history_times_.begin(), workflows_end);
  }
  if (history_db_) history_db_->remove_items_historized_until(bound);
}

void state::set_history_keep_time(std::uint32_t seconds) {
  history_keep_time_ = seconds;
  if (seconds == 0) {
    history_.reset();
  } else if (!history_db_ && !history_) {
    history_ = std::make_unique<state>(*plugin_db_, nullptr, nullptr, nullptr, 0);
  }
}

// Each removal checks the type first, so that a bad type raises also without history.
void state::remove_historized_item(state_item_type type, const std::string& id) {
  get_items(type);
  if (history_) history_->item_remove(type, id);
  if (history_db_) history_db_->remove_item(db_type_of(type), id);
}

void state::remove_historized_items(state_item_type type) {
  get_items(type);
  if (history_) history_->clear_state(type);
  if (history_db_) history_db_->remove_items(db_type_of(type));
}

void state::remove_historized_items(state_item_type type, const std::set<std::string>& ids) {
  get_items(type);
  if (history_)
    for (const std::string& id : ids) history_->item_remove(type, id);
  if (history_db_) history_db_->remove_items(db_type_of(type), ids);
}

void state::remove_historized_workflow(const std::string& workflow_id) {
  if (history_ && history_->workflows_.erase(workflow_id) != 0 && receiver_)
    receiver_->on_historized_workflow_removed(workflow_id);
}

void state::remove_historized_workflows() {
  if (history_) {
    std::set<std::string> spawned;
    for (const auto& [id, workflow] : history_->workflows_)
      if (workflow->get_type() == zelworkflow::workflow_info::workflow_type_spawned)
        spawned.insert(id);
    history_->workflows_.clear();
    if (receiver_)
      for (const std::string& id : spawned) receiver_->on_historized_workflow_removed(id);
  }
  if (history_db_) history_db_->remove_items(db_item_workflow);
}

void state::remove_historized_workflows(const std::set<std::string>& workflow_ids) {
  if (history_)
    for (const std::string& id : workflow_ids)
      if (history_->workflows_.erase(id) != 0 && receiver_)
        receiver_->on_historized_workflow_removed(id);
  if (history_db_) history_db_->remove_items(db_item_workflow, workflow_ids);
}

void state::get_history(zelcore::properties& out) const {
  if (!history_)
    zelbase::es::uspec::raise(source_file, __LINE__, "can't get history without history");
  history_->get_state(out);
}

const state::item_map& state::get_history_items(state_item_type type) const {
  if (!history_)
    zelbase::es::uspec::raise(source_file, __LINE__, "can't get history items without history");
  return history_->get_items(type);
}

state::item_map& state::get_history_items_non_const(state_item_type type) {
  if (!history_)
    zelbase::es::uspec::raise(source_file, __LINE__, "can't get history items without history");
  return history_->get_items_non_const(type);
}

const state::workflow_map& state::get_historized_workflows() const {
  if (!history_)
    zelbase::es::uspec::raise(source_file, __LINE__,
                              "can't get historized workflows without history");
  return history_->workflows_;
}

bool state::get_state_or_history_item(state_item_type type, const std::string& id,
                                      zelcore::properties& out) const {
  const item_map& live = get_items(type);
  auto it = live.find(id);
  if (it != live.end()) {
    out = it->second;
    return true;
  }
  if (!history_) return false;
  const item_map& past = history_->get_items(type);
  it = past.find(id);
  if (it == past.end()) return false;
  out = it->second;
  return true;
}

}  // namespace zelcapi
