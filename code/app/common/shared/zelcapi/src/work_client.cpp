// The work client's requests: each write request carries a client key, is sent with send_async,
// sent again with the same key when its reply does not come in time, and its reply is read into
// an outcome per item.
#include "zelcapi/work_client.h"

#include <utility>

#include "zelcapi/state_connection.h"
#include "zelcore/identifiers.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\work_client";

constexpr const char* update_request = "cluster.api.workflow.update";
constexpr const char* submit_request = "cluster.api.jobs.submit";
constexpr const char* steer_request = "cluster.api.jobs.steer";

using zelnet::zelp::packet;

struct outcome_name {
  write_outcome outcome;
  const char* name;
};
constexpr outcome_name outcome_names[] = {
    {write_outcome::done, "done"},
    {write_outcome::already_done, "already-done"},
    {write_outcome::not_found, "not-found"},
    {write_outcome::not_allowed, "not-allowed"},
    {write_outcome::access_denied, "access-denied"},
    {write_outcome::invalid, "invalid"},
};

const char* job_action_name(job_action action) {
  switch (action) {
    case job_action::cancel: return "cancel";
    case job_action::hold: return "hold";
    case job_action::release: return "release";
    case job_action::retry: return "retry";
    case job_action::priority: return "priority";
  }
  zelbase::es::arg::raise(source_file, __LINE__, "unknown job action");
}

zelbase::ptr_refcount<zelcore::property_list> list_of_trees(
    const std::vector<zelcore::properties>& trees) {
  zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
  for (const zelcore::properties& t : trees)
    list->push_back(zelcore::property_ptr(new zelcore::properties(t)));
  return list;
}

// The reply's fields read into a result; raises es::arg for what cannot be read.
write_result read_reply(const zelcore::properties& reply, std::size_t sent_items) {
  write_result result;
  result.dry_run = reply.get_bool_value("dry-run", false);
  result.repeated = reply.get_bool_value("repeated", false);
  result.submission_id = reply.get_string_value("submission-id", "");
  const auto& items = reply.get_list_value("items");
  if (items.size() != sent_items) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            "the reply holds " + std::to_string(items.size()) + " items for " +
                                std::to_string(sent_items) + " sent");
  }
  for (const zelcore::property_ptr& element : items) {
    if (!element || element->kind() != zelcore::property::kind_properties) {
      zelbase::es::arg::raise(source_file, __LINE__, "an item of the reply is not a properties");
    }
    const auto& fields = static_cast<const zelcore::properties&>(*element);
    item_result item;
    const std::string& outcome = fields.get_string_value("outcome");
    bool known = false;
    for (const outcome_name& o : outcome_names) {
      if (outcome != o.name) continue;
      item.outcome = o.outcome;
      known = true;
    }
    if (!known) {
      zelbase::es::arg::raise(source_file, __LINE__,
                              "an item of the reply has the unknown outcome '" + outcome + "'");
    }
    item.text = fields.get_string_value("text", "");
    item.owner = fields.get_string_value("owner", "");
    item.action = fields.get_string_value("action", "");
    item.id = fields.is_present("id") ? fields.get_string_value("id")
                                      : fields.get_string_value("state-id", "");
    result.items.push_back(std::move(item));
  }
  return result;
}

std::exception_ptr failure(unsigned line, write_error::reason why, const std::string& request,
                           const std::string& key, const std::string& message) {
  return std::make_exception_ptr(write_error(source_file, line, why, request, key, message));
}

// The text of a failure whose request the master may have applied.
std::string unknown_outcome(const std::string& request, const std::string& key,
                            const std::string& what) {
  return "'" + request + "' (key '" + key + "'): " + what +
         "; the master may have applied it: send it again with key '" + key + "'";
}

// One request in flight: what is sent again after a time-out, and whom to tell.
struct pending {
  connection* link;
  std::string name;
  packet request;
  std::size_t items;
  std::string key;
  unsigned timeout;
  unsigned sends_left;
  unsigned sends = 0;
  work_client::write_callback done;
};

// Sends the request once more; a time-out with sends left sends it again.
void attempt(const std::shared_ptr<pending>& request) {
  --request->sends_left;
  ++request->sends;
  request->link->send_async(
      request->request, request->timeout, [request](const packet& reply, std::exception_ptr error) {
        const std::string& name = request->name;
        const std::string& key = request->key;
        if (error) {
          std::string message;
          try {
            std::rethrow_exception(error);
          } catch (const zelbase::es::base& e) {
            message = e.message();
          }
          if (message != "Connection timeout") {
            request->done(
                write_result(),
                failure(__LINE__, write_error::link_lost, name, key,
                        unknown_outcome(name, key,
                                        "the link was lost before the reply (" + message + ")")));
            return;
          }
          if (request->sends_left > 0) {
            attempt(request);
            return;
          }
          request->done(
              write_result(),
              failure(__LINE__, write_error::timed_out, name, key,
                      unknown_outcome(name, key,
                                      "no reply within " + std::to_string(request->timeout) +
                                          " s, sent " + std::to_string(request->sends) +
                                          (request->sends == 1 ? " time" : " times"))));
          return;
        }
        const zelcore::properties& fields = reply.get_properties();
        if (fields.is_present("error")) {
          std::string text;
          try {
            text = fields.get_string_value("error");
          } catch (const zelbase::es::base& e) {
            text = e.message();
          }
          request->done(write_result(), failure(__LINE__, write_error::refused, name, key,
                                                "'" + name + "' refused by the master: " + text));
          return;
        }
        write_result result;
        try {
          result = read_reply(fields, request->items);
        } catch (const zelbase::es::base& e) {
          request->done(write_result(), failure(__LINE__, write_error::bad_reply, name, key,
                                                "'" + name + "' (key '" + key +
                                                    "'): unreadable reply: " + e.message()));
          return;
        }
        result.key = key;
        request->done(result, nullptr);
      });
}

}  // namespace

const char* write_outcome_c_str(write_outcome outcome) {
  for (const outcome_name& o : outcome_names)
    if (o.outcome == outcome) return o.name;
  return "unknown";
}

bool write_result::all_ok() const noexcept {
  for (const item_result& item : items)
    if (!item.ok()) return false;
  return true;
}

write_error::write_error(const char* file, unsigned line, reason why, std::string request,
                         std::string key, std::string message)
    : uspec(file, line, std::move(message)),
      why_(why),
      request_(std::move(request)),
      key_(std::move(key)) {}

write_error::~write_error() = default;

work_client::work_client(connection& link, const zelcore::plugin_db& plugins)
    : link_(&link),
      state_link_(nullptr),
      actions_(plugins),
      timeout_(link.get_timeout()),
      retries_(1) {}

work_client::work_client(state_connection& link, const zelcore::plugin_db& plugins)
    : link_(&link),
      state_link_(&link),
      actions_(plugins, link.get_state()),
      timeout_(link.get_timeout()),
      retries_(1) {}

std::string work_client::_send(const std::string& name, zelcore::properties fields,
                               const write_options& options, write_callback done) {
  auto request = std::make_shared<pending>();
  request->key = options.key.empty() ? "key-" + zelcore::string_uuid(false) : options.key;
  fields.set_string_value("key", request->key);
  if (options.dry_run) fields.set_bool_value("dry-run", true);
  const char* list = name == steer_request ? "ids" : name == submit_request ? "jobs" : "actions";
  request->items = fields.get_list_value(list).size();
  request->link = link_;
  request->name = name;
  request->request = packet(packet::type_request, name, fields);
  request->timeout = timeout_;
  request->sends_left = retries_ + 1;
  request->done = std::move(done);
  attempt(request);
  return request->key;
}

write_result work_client::_wait_for(const std::string& name, zelcore::properties fields,
                                    const write_options& options) {
  // Shared with the callback, which outlives this call when the wait leaves by an exception.
  struct outcome {
    bool ended = false;
    write_result result;
    std::exception_ptr error;
  };
  auto got = std::make_shared<outcome>();
  const std::string key =
      _send(name, std::move(fields), options, [got](const write_result& r, std::exception_ptr e) {
        got->ended = true;
        got->result = r;
        got->error = e;
      });
  if (!link_->serve_until(got->ended)) {
    throw write_error(
        source_file, __LINE__, write_error::link_lost, name, key,
        unknown_outcome(name, key, "the connection has nothing left that could reply"));
  }
  if (got->error) std::rethrow_exception(got->error);
  return std::move(got->result);
}

namespace {

zelcore::properties update_fields(const std::vector<zelcore::properties>& actions) {
  zelcore::properties fields;
  fields["actions"] = list_of_trees(actions);
  return fields;
}

zelcore::properties submit_fields(const std::vector<zelcore::properties>& jobs,
                                  const std::string& name) {
  zelcore::properties fields;
  fields["jobs"] = list_of_trees(jobs);
  if (!name.empty()) fields.set_string_value("name", name);
  return fields;
}

zelcore::properties steer_fields(job_action action, const std::vector<std::string>& ids,
                                 std::int64_t priority) {
  zelcore::properties fields;
  fields.set_string_value("action", job_action_name(action));
  fields["ids"] = zelcore::make_string_list(ids);
  if (action == job_action::priority) fields.set_int_value("priority", priority);
  return fields;
}

}  // namespace

std::vector<zelcore::properties> work_client::_for_each(
    const std::vector<std::string>& ids,
    zelcore::properties (workflow_actions::*build)(const std::string&) const) const {
  std::vector<zelcore::properties> actions;
  actions.reserve(ids.size());
  for (const std::string& id : ids) actions.push_back((actions_.*build)(id));
  return actions;
}

write_result work_client::update_workflows(const std::vector<zelcore::properties>& actions,
                                           const write_options& options) {
  return _wait_for(update_request, update_fields(actions), options);
}

void work_client::update_workflows_async(const std::vector<zelcore::properties>& actions,
                                         const write_options& options, write_callback done) {
  _send(update_request, update_fields(actions), options, std::move(done));
}

write_result work_client::submit_workflow(const zelcore::properties& workflow,
                                          const std::string& state_id,
                                          const write_options& options) {
  return update_workflows({actions_.add_workflow(workflow, state_id)}, options);
}

write_result work_client::submit_workflow(const zelworkflow::workflow_info& workflow,
                                          const std::string& state_id,
                                          const write_options& options) {
  return update_workflows({actions_.add_workflow(workflow, state_id)}, options);
}

void work_client::submit_workflow_async(const zelcore::properties& workflow,
                                        const std::string& state_id, const write_options& options,
                                        write_callback done) {
  update_workflows_async({actions_.add_workflow(workflow, state_id)}, options, std::move(done));
}

write_result work_client::submit_workflows(const std::vector<zelcore::properties>& workflows,
                                           const write_options& options) {
  std::vector<zelcore::properties> actions;
  actions.reserve(workflows.size());
  for (const zelcore::properties& w : workflows) actions.push_back(actions_.add_workflow(w));
  return update_workflows(actions, options);
}

write_result work_client::spawn_workflow(const std::string& template_id,
                                         const zelcore::properties& values,
                                         const std::string& state_id,
                                         const write_options& options) {
  return update_workflows({actions_.set_in_values(template_id, values, state_id)}, options);
}

void work_client::spawn_workflow_async(const std::string& template_id,
                                       const zelcore::properties& values,
                                       const std::string& state_id, const write_options& options,
                                       write_callback done) {
  update_workflows_async({actions_.set_in_values(template_id, values, state_id)}, options,
                         std::move(done));
}

write_result work_client::remove_workflows(const std::vector<std::string>& state_ids,
                                           const write_options& options) {
  return update_workflows(_for_each(state_ids, &workflow_actions::remove_workflow), options);
}

void work_client::remove_workflows_async(const std::vector<std::string>& state_ids,
                                         const write_options& options, write_callback done) {
  update_workflows_async(_for_each(state_ids, &workflow_actions::remove_workflow), options,
                         std::move(done));
}

write_result work_client::cancel_workflows(const std::vector<std::string>& state_ids,
                                           const write_options& options) {
  return update_workflows(_for_each(state_ids, &workflow_actions::cancel_workflow), options);
}

void work_client::cancel_workflows_async(const std::vector<std::string>& state_ids,
                                         const write_options& options, write_callback done) {
  update_workflows_async(_for_each(state_ids, &workflow_actions::cancel_workflow), options,
                         std::move(done));
}

namespace {

std::vector<zelcore::properties> priorities(const workflow_actions& actions,
                                            const std::vector<std::string>& state_ids,
                                            std::int64_t priority) {
  std::vector<zelcore::properties> out;
  out.reserve(state_ids.size());
  for (const std::string& id : state_ids) out.push_back(actions.set_priority(id, priority));
  return out;
}

}  // namespace

write_result work_client::set_workflow_priority(const std::vector<std::string>& state_ids,
                                                std::int64_t priority,
                                                const write_options& options) {
  return update_workflows(priorities(actions_, state_ids, priority), options);
}

void work_client::set_workflow_priority_async(const std::vector<std::string>& state_ids,
                                              std::int64_t priority, const write_options& options,
                                              write_callback done) {
  update_workflows_async(priorities(actions_, state_ids, priority), options, std::move(done));
}

write_result work_client::retry_task(const std::string& state_id, const std::string& task,
                                     const write_options& options) {
  return update_workflows({actions_.retry_task(state_id, task)}, options);
}

void work_client::retry_task_async(const std::string& state_id, const std::string& task,
                                   const write_options& options, write_callback done) {
  update_workflows_async({actions_.retry_task(state_id, task)}, options, std::move(done));
}

write_result work_client::submit_jobs(const std::vector<zelcore::properties>& jobs,
                                      const std::string& name, const write_options& options) {
  return _wait_for(submit_request, submit_fields(jobs, name), options);
}

void work_client::submit_jobs_async(const std::vector<zelcore::properties>& jobs,
                                    const std::string& name, const write_options& options,
                                    write_callback done) {
  _send(submit_request, submit_fields(jobs, name), options, std::move(done));
}

write_result work_client::steer_jobs(job_action action, const std::vector<std::string>& ids,
                                     std::int64_t priority, const write_options& options) {
  return _wait_for(steer_request, steer_fields(action, ids, priority), options);
}

void work_client::steer_jobs_async(job_action action, const std::vector<std::string>& ids,
                                   std::int64_t priority, const write_options& options,
                                   write_callback done) {
  _send(steer_request, steer_fields(action, ids, priority), options, std::move(done));
}

}  // namespace zelcapi
