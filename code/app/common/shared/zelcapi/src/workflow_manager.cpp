// The workflow manager's core: workflow ids and wpaths, numbering, adding and removing
// workflows, and the encoders of whole workflows.
#include "zelcapi/workflow_manager.h"

#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include "workflow_manager_detail.h"
#include "zelbase/time.h"
#include "zelcore/identifiers.h"

namespace zelcapi {

using namespace workflow_manager_detail;

workflow_manager_event_receiver::~workflow_manager_event_receiver() = default;

// --- Construction, identifiers, numbering ---

workflow_manager::workflow_manager(workflow_manager_event_receiver* receiver,
                                   workflow_map& workflows, std::uint64_t& sequence_number)
    : receiver_(receiver), workflows_(workflows), sequence_number_(sequence_number) {}

workflow_manager::~workflow_manager() = default;

void workflow_manager::set_attempts_config(const attempts_config& config) {
  if (&config == &attempts_config_) return;
  attempts_config_.clear();
  attempts_config_.insert(config.begin(), config.end());
}

std::string workflow_manager::create_wpath(const std::string& wfid, const std::string& wtid) {
  return zelbase::uri_new_scheme_specific(zelbase::workflow_new(),
                                          zelbase::path_appended(wfid, wtid, path_separator));
}

void workflow_manager::extract_wfid_and_wtid(const std::string& wpath, std::string& wfid,
                                             std::string& wtid) {
  // Both outputs may alias the input: read it whole before writing either.
  std::string id = wfid_of(wpath);
  std::string task = zelbase::path_back(wpath, path_separator);
  wfid = std::move(id);
  wtid = std::move(task);
}

void workflow_manager::create_unique_state_id(std::string& out) const {
  out = "WOFL-" + zelcore::string_uuid(false);
}

std::uint64_t workflow_manager::get_next_sequence_number() {
  if (++sequence_number_ == 0) sequence_number_ = 1;
  return sequence_number_;
}

// --- Lookup, adding, removing ---

workflow_info* workflow_manager::get_workflow_info(const std::string& state_id) {
  const auto it = workflows_.find(state_id);
  if (it == workflows_.end())
    raise_invalid_state_id(__LINE__, zelbase::string_with_format(
                                         "'%s' isn't a valid workflow state id", state_id.c_str()));
  return it->second.get();
}

const workflow_info* workflow_manager::get_workflow_info(const std::string& state_id) const {
  return const_cast<workflow_manager*>(this)->get_workflow_info(state_id);
}

void workflow_manager::_add_workflow(boost::shared_ptr<workflow_info>& wi,
                                     const std::string& state_id) {
  if (!workflows_.emplace(state_id, wi).second)
    raise_arg(__LINE__, zelbase::string_with_format("Can't add workflow with same state-id ('%s') "
                                                    "as an already present workflow.",
                                                    state_id.c_str()));
  if (wi->get_type() == workflow_info::workflow_type_spawned && wi->get_sequence_number() == 0)
    wi->spawn(get_next_sequence_number(), string_value("No in-value needed"), attempts_config_);
}

void workflow_manager::_add_workflow(const properties& props, const zelcore::plugin_db& db,
                                     std::string& state_id_out, const std::string& state_id_in) {
  auto wi = boost::make_shared<workflow_info>();
  wi->decode_workflow_info(props, db);
  if (state_id_in.empty())
    create_unique_state_id(state_id_out);
  else if (&state_id_out != &state_id_in)
    state_id_out = state_id_in;
  _add_workflow(wi, state_id_out);
}

void workflow_manager::add_workflow(const properties& workflow, const zelcore::plugin_db& db,
                                    std::string& state_id, const std::string& requested) {
  _add_workflow(workflow, db, state_id, requested);
  _notify_add_workflow(state_id, workflow);
}

void workflow_manager::_remove_workflow(const std::string& state_id) {
  // The id may live in the entry about to be erased.
  const std::string id = state_id;
  get_workflow_info(id)->add_workflow_meta_data("remove-time",
                                                int_value(zelbase::time_in_seconds()));
  const auto it = workflows_.find(id);
  if (it == workflows_.end())
    raise_invalid_state_id(__LINE__, zelbase::string_with_format(
                                         "erase() Invalid workflow state id: '%s'", id.c_str()));
  workflows_.erase(it);
  for (auto& entry : workflows_) entry.second->remove_dependant(id);
}

void workflow_manager::remove_workflow(const std::string& state_id) {
  // The caller may pass the map's own key, which the removal frees.
  const std::string id = state_id;
  const properties update{{"action", string_value("remove-workflow")},
                          {"state-id", string_value(id)}};
  _notify_pre_update_workflow(id, update);
  _remove_workflow(id);
  _notify_post_update_workflow(id, update);
}

// --- Encoders and whole-map queries ---

void workflow_manager::encode_workflow(const std::string& state_id, properties& out) const {
  get_workflow_info(state_id)->encode_workflow_info(out);
}

void workflow_manager::encode_all_workflows(properties& out) const {
  for (const auto& [id, wi] : workflows_) {
    properties encoded(false);
    wi->encode_workflow_info(encoded);
    out[id] = tree_value(encoded);
  }
}

void workflow_manager::encode_task(const std::string& state_id, const std::string& wtid,
                                   properties& out) const {
  get_workflow_info(state_id)->get_task_info(wtid)->encode_task_info(out);
}

void workflow_manager::get_all_workflow_statuses(
    std::map<std::string, workflow_info::status>& out) const {
  for (const auto& [id, wi] : workflows_) out[id] = wi->get_status();
}

void workflow_manager::get_all_wpaths(std::set<std::string>& out) const {
  std::list<std::string> wtids;
  for (const auto& [id, wi] : workflows_) {
    wtids.clear();
    wi->get_task_uris(wtids);
    for (const auto& wtid : wtids) out.insert(create_wpath(id, wtid));
  }
}

}  // namespace zelcapi
