// The write requests: keys, dry runs, the submission and the steering of plain jobs. The
// workflow actions are in workflow_actions.cpp.
#include "write_requests.h"

#include "zelbase/exceptions.h"

namespace zelsim {

namespace {

using zelcore::properties;

constexpr const char* source_file = "code\\tools\\zelsim\\src\\write_requests";

[[noreturn]] void refuse(const std::string& text) {
  zelbase::es::arg::raise(source_file, __LINE__, text);
}

}  // namespace

properties item_of(const verdict& v) {
  properties item;
  item.set_string_value("outcome", v.outcome);
  if (!v.text.empty()) item.set_string_value("text", v.text);
  if (!v.owner.empty()) item.set_string_value("owner", v.owner);
  return item;
}

write_requests::write_requests(master_state& master, runner& work, node_pool& pool,
                               const options& o)
    : master_(master),
      work_(work),
      pool_(pool),
      run_ms_(o.run_ms),
      keys_(std::uint64_t{o.key_keep_time} * 1000) {}

bool write_requests::is_write_request(const std::string& name) {
  return name == update_name || name == submit_name || name == steer_name;
}

void write_requests::answer(const std::string& name, const identity& who,
                            const std::string& node_id, const std::string& master_id,
                            const properties& request, properties& reply) {
  if (node_id != master_id) {
    refuse("'" + node_id + "' is not the cluster master ('" + master_id + "' is)");
  }
  work_.drive();
  const bool dry_run = request.get_bool_value("dry-run", false);
  const std::string key = request.get_string_value("key", "");
  // What the key stands for: the request as the client wrote it, whatever its bounce tree.
  properties keyed = request;
  keyed.erase(zelnet::zelp::packet::bounce_property_id());
  keyed.erase("dry-run");
  if (!dry_run && !key.empty()) {
    if (const request_keys::answer* first = keys_.find(who, key, work_.now_ms())) {
      if (first->name != name || !(first->request == keyed)) {
        refuse("\"key\" '" + key + "' was used for another request");
      }
      for (const auto& [field, value] : first->reply) reply[field] = value;
      reply.set_bool_value("repeated", true);
      return;
    }
  }
  if (!dry_run && key.empty()) {
    if (name == submit_name) refuse("a request that creates work carries a \"key\"");
    if (name == update_name) {
      for (const zelcore::property_ptr& action : request.get_list_value("actions")) {
        if (_creates_unnamed(action)) {
          refuse(
              "a request that creates workflows without naming their state ids carries a "
              "\"key\"");
        }
      }
    }
  }
  reply.set_bool_value("dry-run", dry_run);
  if (name == submit_name) {
    _submit(who, request, dry_run, reply);
  } else if (name == steer_name) {
    _steer(who, request, dry_run, reply);
  } else {
    _update(who, request, dry_run, reply);
  }
  work_.settle();
  if (!dry_run && !key.empty()) {
    properties stored = reply;
    stored.erase(zelnet::zelp::packet::bounce_property_id());
    keys_.remember(who, key, request_keys::answer{name, keyed, stored}, work_.now_ms());
  }
}

void write_requests::_submit(const identity& who, const properties& request, bool dry_run,
                             properties& reply) {
  const auto& jobs = request.get_list_value("jobs");
  if (jobs.empty()) refuse("\"jobs\" is empty");
  const std::string name = request.get_string_value("name", "");
  std::vector<properties> items;
  std::vector<job_params> valid;
  for (const zelcore::property_ptr& job : jobs) {
    verdict v{outcome::done, "", ""};
    try {
      if (job->kind() != zelcore::property::kind_properties) {
        refuse(std::string("a job is a properties, not a ") +
               zelcore::property_kind_c_str(job->kind()));
      }
      job_params params = read_job(static_cast<const properties&>(*job), run_ms_);
      if (params.cores > pool_.largest()) {
        refuse("'cores' is " + std::to_string(params.cores) + ", more than the largest node has (" +
               std::to_string(pool_.largest()) + ")");
      }
      valid.push_back(std::move(params));
    } catch (const zelbase::es::base& e) {
      v = verdict{outcome::invalid, e.message(), ""};
    }
    items.push_back(item_of(v));
  }
  std::vector<std::string> ids;
  if (!dry_run) {
    const std::string submission = work_.submit(valid, name, who, ids);
    if (!submission.empty()) reply.set_string_value("submission-id", submission);
  }
  zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
  std::size_t next = 0;
  for (properties& item : items) {
    if (!dry_run && item.get_string_value("outcome") == outcome::done) {
      item.set_string_value("id", ids[next++]);
    }
    list->push_back(zelcore::property_ptr(new properties(std::move(item))));
  }
  reply["items"] = list;
}

void write_requests::_steer(const identity& who, const properties& request, bool dry_run,
                            properties& reply) {
  const std::string& action = request.get_string_value("action");
  if (action != "cancel" && action != "hold" && action != "release" && action != "retry" &&
      action != "priority") {
    refuse("\"action\" '" + action + "' is not cancel, hold, release, retry or priority");
  }
  const std::int64_t priority = action == "priority" ? request.get_int_value("priority") : 0;
  zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
  for (const zelcore::property_ptr& id : request.get_list_value("ids")) {
    properties item;
    if (id->kind() != zelcore::property::kind_string) {
      item = item_of(verdict{
          outcome::invalid,
          std::string("an id is a string, not a ") + zelcore::property_kind_c_str(id->kind()), ""});
    } else {
      const std::string& job_id = static_cast<const zelcore::property_string&>(*id).value();
      item = item_of(work_.steer(job_id, action, priority, who, dry_run));
      item.set_string_value("id", job_id);
    }
    list->push_back(zelcore::property_ptr(new properties(std::move(item))));
  }
  reply["items"] = list;
}

}  // namespace zelsim
