// The state replica: item stores, workflow results and their notifications.
#include "zelcapi/state.h"

#include <typeinfo>
#include <utility>

#include "item_index.h"
#include "saved_workflows.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelbase/time.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\state";

const char* const item_type_texts[] = {"client", "node", "submission", "source",
                                       "slot",   "job",  "task"};
const char* const db_item_type_texts[] = {"client", "node", "submission", "source",
                                          "slot",   "job",  "task",       "workflow"};

// The snapshot key of each item kind, in the order of state_item_type.
const char* const snapshot_keys[] = {"clients", "nodes", "submissions", "sources",
                                     "slots",   "jobs",  "tasks"};

// The standard bad-cast error, with a text that says which child of a snapshot was refused.
class snapshot_bad_cast final : public std::bad_cast {
 public:
  explicit snapshot_bad_cast(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

template <class Kind>
constexpr zelcore::property::property_kind kind_of();
template <>
constexpr zelcore::property::property_kind kind_of<zelcore::properties>() {
  return zelcore::property::kind_properties;
}
template <>
constexpr zelcore::property::property_kind kind_of<zelcore::property_int>() {
  return zelcore::property::kind_int;
}

// By the kind the object holds: a snapshot has a cast per record, and a dynamic_cast was a
// twentieth of loading one.
template <class Kind>
const Kind& child_as(const zelcore::property& child, const char* what, const std::string& key) {
  if (child.kind() == kind_of<Kind>()) return static_cast<const Kind&>(child);
  throw snapshot_bad_cast(zelbase::string_with_format("state snapshot: %s '%s' is a %s", what,
                                                      key.c_str(),
                                                      zelcore::property_kind_c_str(child.kind())));
}

constexpr state_item_type all_item_types[] = {
    state_item_client, state_item_node, state_item_submission, state_item_source,
    state_item_slot,   state_item_job,  state_item_task};

}  // namespace

const char* state_item_type_c_str(int type) {
  return type >= 0 && type < 7 ? item_type_texts[type] : "";
}

const char* db_item_type_c_str(int type) {
  return type >= 0 && type < 8 ? db_item_type_texts[type] : "";
}

state_notification_receiver::~state_notification_receiver() = default;
state_db::~state_db() = default;
forwarding_state_db::~forwarding_state_db() = default;
history_db::~history_db() = default;

workflow_result_info::workflow_result_info(const zelcore::properties& encoded)
    : status(static_cast<std::uint32_t>(encoded.get_int_value("st"))),
      ht(static_cast<std::uint32_t>(encoded.get_int_value("ht", 1))) {}

void workflow_result_info::encode(zelcore::properties& out) const {
  out["st"] = zelcore::make_int(static_cast<std::int32_t>(status));
  out["ht"] = zelcore::make_int(ht);
}

state::state(const zelcore::plugin_db& plugins, state_notification_receiver* receiver,
             state_db* states, history_db* histories, std::uint32_t history_keep_time)
    : plugin_db_(&plugins),
      receiver_(receiver),
      workflow_manager_(this, workflows_, workflow_seq_nr_),
      state_db_(states),
      history_db_(histories),
      history_keep_time_(history_keep_time),
      saved_workflows_(std::make_unique<detail::saved_workflows>()) {
  for (const state_item_type type : all_item_types)
    indexes_[type] = std::make_unique<detail::item_index>(store_of(type));
  if (!history_db_ && history_keep_time_ != 0)
    history_ = std::make_unique<state>(plugins, nullptr, nullptr, nullptr, 0);
}

state::~state() { _wait_for_own_save(); }

state::item_map& state::store_of(state_item_type type) {
  switch (type) {
    case state_item_client: return clients_;
    case state_item_node: return nodes_;
    case state_item_submission: return submissions_;
    case state_item_source: return sources_;
    case state_item_slot: return slots_;
    case state_item_job: return jobs_;
    case state_item_task: return tasks_;
  }
  zelbase::es::arg::raise(
      source_file, __LINE__,
      zelbase::string_with_format("state does not have item type %d", static_cast<int>(type)));
}

state::item_map& state::get_items_non_const(state_item_type type) {
  item_map& store = store_of(type);
  indexes_[type]->mark_stale();
  return store;
}

void state::prefetch_item(state_item_type type, const std::string& id) const noexcept {
  indexes_[type]->prefetch(id);
}

detail::item_index& state::index_of(state_item_type type) {
  store_of(type);
  return *indexes_[type];
}

const state::item_map& state::get_items(state_item_type type) const {
  return const_cast<state*>(this)->store_of(type);
}

const zelcore::properties& state::get_item(state_item_type type, const std::string& id) const {
  const item_map& items = get_items(type);
  const auto it = items.find(id);
  if (it == items.end())
    zelbase::es::arg::raise(
        source_file, __LINE__,
        zelbase::string_with_format("state does not have item id %s", id.c_str()));
  return it->second;
}

bool state::has_item(state_item_type type, const std::string& id) const {
  const item_map& items = get_items(type);
  return items.find(id) != items.end();
}

void state::item_set(state_item_type type, const std::string& id,
                     const zelcore::properties& props) {
  index_of(type).find_or_insert(id)->second = props;
  if (receiver_) receiver_->on_item_set(type, id, props);
}

void state::item_update(state_item_type type, const std::string& id,
                        const zelcore::properties& props) {
  index_of(type).find_or_insert(id)->second.merge_leaves(props);
  if (receiver_) receiver_->on_item_updated(type, id, props);
}

void state::item_remove(state_item_type type, const std::string& id) {
  detail::item_index& items = index_of(type);
  if (receiver_) receiver_->on_item_removing(type, id);
  items.erase(id);
  if (receiver_) receiver_->on_item_removed(type, id);
}

void state::item_erase_property_ref(state_item_type type, const std::string& id,
                                    const std::string& ref) {
  if (zelcore::properties* record = index_of(type).find(id))
    record->set_referenced_property(ref, zelcore::property_ptr());
  if (receiver_) receiver_->on_item_erased_property_ref(type, id, ref);
}

void state::clear_state(state_item_type type) { index_of(type).clear(); }

void state::clear_state() {
  for (const state_item_type type : all_item_types) indexes_[type]->clear();
  workflow_results_.clear();
  workflows_.clear();
  workflow_seq_nr_ = 0;
}

void state::workflow_result_add(const std::string& workflow_id,
                                const workflow_result_info& result) {
  workflow_results_[workflow_id] = result;
  if (receiver_) receiver_->on_workflow_result_added(workflow_id, result);
}

void state::workflow_result_add(const std::string& workflow_id,
                                const zelcore::properties& encoded) {
  workflow_result_add(workflow_id, workflow_result_info(encoded));
}

bool state::workflow_result_remove(const std::string& workflow_id) {
  if (receiver_) receiver_->on_workflow_result_removing(workflow_id);
  if (workflow_results_.erase(workflow_id) == 0) return false;
  if (receiver_) receiver_->on_workflow_result_removed(workflow_id);
  return true;
}

bool state::has_workflow_result(const std::string& workflow_id) const {
  return workflow_results_.count(workflow_id) != 0;
}

workflow_result_info state::get_workflow_result(const std::string& workflow_id) const {
  const auto it = workflow_results_.find(workflow_id);
  return it == workflow_results_.end() ? workflow_result_info() : it->second;
}

void state::get_workflow_results(zelcore::properties& out) const {
  for (const auto& [id, result] : workflow_results_) {
    zelcore::properties encoded(false);
    result.encode(encoded);
    out.set_properties_value(id, encoded);
  }
}

void state::get_state(zelcore::properties& out) const {
  for (const state_item_type type : all_item_types) {
    zelcore::properties items(false);
    get_items(type, items);
    out.set_properties_value(snapshot_keys[type], items);
  }
  zelcore::properties results(false);
  get_workflow_results(results);
  out.set_properties_value("workflow-results", results);
  zelcore::properties workflows(false);
  encode_workflow_infos(workflows_, workflows);
  out.set_properties_value("workflows", workflows);
  out["workflow-seq-nr"] =
      zelcore::make_int(static_cast<std::int64_t>(workflow_manager_.get_current_sequence_number()));
}

void state::get_items(state_item_type type, zelcore::properties& out) const {
  for (const auto& [id, record] : get_items(type)) out.set_properties_value(id, record);
}

void state::get_workflows(zelcore::properties& out) const {
  encode_workflow_infos(workflows_, out);
}

void state::encode_workflow_infos(const workflow_map& workflows, zelcore::properties& out) const {
  for (const auto& [id, workflow] : workflows) {
    zelcore::properties encoded(false);
    workflow->encode_workflow_info(encoded);
    out.set_properties_value(id, encoded);
  }
}

void state::set_state(const zelcore::properties& snapshot) {
  for (const auto& [key, child] : snapshot) {
    if (!child) continue;
    if (key == "workflow-results") {
      set_workflow_results_state(child_as<zelcore::properties>(*child, "key", key));
    } else if (key == "workflows") {
      set_workflows_state(child_as<zelcore::properties>(*child, "key", key));
    } else if (key == "workflow-seq-nr") {
      workflow_manager_.set_current_sequence_number(
          static_cast<std::uint64_t>(child_as<zelcore::property_int>(*child, "key", key).value()));
    } else {
      for (const state_item_type type : all_item_types) {
        if (key != snapshot_keys[type]) continue;
        set_state(type, child_as<zelcore::properties>(*child, "key", key));
        break;
      }
    }
  }
}

void state::set_state(state_item_type type, const zelcore::properties& items) {
  item_map& store = get_items_non_const(type);
  store.clear();
  for (const auto& [id, record] : items) {
    if (!record) continue;
    store.emplace_hint(store.end(), id, child_as<zelcore::properties>(*record, "item", id));
  }
}

void state::set_workflow_results_state(const zelcore::properties& results) {
  workflow_results_.clear();
  for (const auto& [id, result] : results) {
    if (!result) continue;
    workflow_results_.emplace_hint(
        workflow_results_.end(), id,
        workflow_result_info(child_as<zelcore::properties>(*result, "workflow result", id)));
  }
}

void state::set_workflows_state(const zelcore::properties& workflows) {
  workflows_.clear();
  for (const auto& [id, workflow] : workflows) {
    if (workflow && workflow->kind() == zelcore::property::kind_properties)
      add_workflow(id, static_cast<const zelcore::properties&>(*workflow));
  }
}

void state::add_workflow(const std::string& workflow_id, const zelcore::properties& workflow) {
  std::string added;
  workflow_manager_.add_workflow(workflow, *plugin_db_, added, workflow_id);
}

void state::add_workflow(const std::string& workflow_id, const workflow_ptr& workflow) {
  workflows_[workflow_id] = workflow;
}

void state::remove_workflow(const std::string& workflow_id) {
  workflow_manager_.remove_workflow(workflow_id);
}

void state::update_workflow(const zelcore::properties& update) {
  workflow_manager_.update_workflow(update, *plugin_db_);
}

bool state::has_workflow_in_state(const std::string& workflow_id) const {
  return workflows_.count(workflow_id) != 0;
}

int state::has_workflow_in_state_or_history(const std::string& workflow_id) const {
  if (has_workflow_in_state(workflow_id)) return 1;
  return has_workflow_in_history(workflow_id) ? 2 : 0;
}

const state::workflow_ptr& state::get_workflow_from_state(const std::string& workflow_id) const {
  const auto it = workflows_.find(workflow_id);
  if (it == workflows_.end())
    zelbase::es::arg::raise(source_file, __LINE__, "Workflow ID not found in state");
  return it->second;
}

const state::workflow_ptr& state::get_workflow_from_state_or_history(
    const std::string& workflow_id) const {
  auto it = workflows_.find(workflow_id);
  if (it != workflows_.end()) return it->second;
  if (history_) {
    it = history_->workflows_.find(workflow_id);
    if (it != history_->workflows_.end()) return it->second;
  }
  zelbase::es::arg::raise(source_file, __LINE__, "Workflow ID not found in state or history");
}

bool state::has_workflow_in_history(const std::string& workflow_id) const {
  return history_ && history_->has_workflow_in_state(workflow_id);
}

const state::workflow_ptr& state::get_workflow_from_history(const std::string& workflow_id) const {
  if (history_) {
    const auto it = history_->workflows_.find(workflow_id);
    if (it != history_->workflows_.end()) return it->second;
  }
  zelbase::es::arg::raise(source_file, __LINE__, "Workflow ID not found in history");
}

void state::wm_cb_workflow_will_be_updated(const std::string& workflow_id,
                                           const zelcore::properties& update) {
  if (receiver_) receiver_->on_workflow_will_be_updated(workflow_id, update);
  if (!history_ && !history_db_) return;
  if (update.get_string_value("action") != "remove-workflow") return;
  const auto it = workflows_.find(workflow_id);
  if (it == workflows_.end()) return;
  if (history_db_) {
    zelcore::properties encoded(false);
    it->second->encode_workflow_info(encoded);
    history_db_->store_item(db_item_workflow, workflow_id, encoded);
  }
  if (history_) {
    workflow_history_times_.emplace(zelbase::time_in_seconds(), workflow_id);
    history_->add_workflow(workflow_id, it->second);
  }
}

void state::wm_cb_workflow_was_updated(const std::string& workflow_id,
                                       const zelcore::properties& update) {
  if (receiver_) receiver_->on_workflow_was_updated(workflow_id, update);
}

}  // namespace zelcapi
