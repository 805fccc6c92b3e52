// Waiting on a state connection's replica until a workflow or job meets a condition: the
// connection's I/O runs in short slices, and the record is read from the replica after each.
#include <algorithm>
#include <chrono>

#include "zelcapi/state_connection.h"
#include "zelcapi/work_client.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\work_wait";

// The longest the I/O runs between two looks at the replica, in milliseconds.
constexpr unsigned look_interval_ms = 10;

bool is_ended_status(zelworkflow::workflow_info::status status) {
  return status == zelworkflow::workflow_info::status_finished ||
         status == zelworkflow::workflow_info::status_failed ||
         status == zelworkflow::workflow_info::status_killed;
}

std::string job_state(const work_record& r) {
  const zelcore::property_ptr state = r.record.get_property("state");
  if (!state || state->kind() != zelcore::property::kind_string) return "";
  return static_cast<const zelcore::property_string&>(*state).value();
}

// Reads the record's present form from the replica.
void look(const state& replica, work_record& r) {
  if (r.type == work_record::job) {
    r.live = replica.has_item(state_item_job, r.id);
    if (r.live) r.record = replica.get_item(state_item_job, r.id);
  } else {
    // A removed workflow is read from the replica's history when it keeps one: its final form,
    // which the last look may not have seen when the end and the removal came together.
    const int where = replica.has_workflow_in_state_or_history(r.id);
    r.live = where == 1;
    if (where != 0) {
      const state::workflow_ptr& w = replica.get_workflow_from_state_or_history(r.id);
      zelcore::properties encoded(false);
      w->encode_workflow_info(encoded);
      r.record = encoded;
      r.status = w->get_status();
      r.seen = true;
    }
    r.has_result = replica.has_workflow_result(r.id);
    if (r.has_result) r.result = replica.get_workflow_result(r.id);
  }
  r.seen = r.seen || r.live;
}

}  // namespace

const char* workflow_status_c_str(std::uint32_t status) {
  switch (status) {
    case zelworkflow::workflow_info::status_created: return "created";
    case zelworkflow::workflow_info::status_running: return "running";
    case zelworkflow::workflow_info::status_finished: return "finished";
    case zelworkflow::workflow_info::status_failed: return "failed";
    case zelworkflow::workflow_info::status_killed: return "killed";
  }
  return "of an unknown status";
}

bool work_record::ended() const {
  if (type == workflow) return has_result || (seen && is_ended_status(status));
  const std::string state = job_state(*this);
  return state == "finished" || state == "failed" || state == "cancelled";
}

std::string work_record::describe() const {
  const std::string what = (type == job ? "job '" : "workflow '") + id + "'";
  if (type == workflow && has_result) {
    return what + " ended " + workflow_status_c_str(result.status);
  }
  if (!seen) return what + " is not in the replica";
  std::string last;
  if (type == job) {
    const std::string state = job_state(*this);
    last = state.empty() ? "without a state" : state;
  } else {
    last = workflow_status_c_str(status);
    // A status that has ended reads as the result will: the wait may stop before the result.
    if (live && is_ended_status(status)) return what + " ended " + last;
  }
  return live ? what + " is " + last : what + " has left the live state (last seen " + last + ")";
}

std::string work_record::state_name() const {
  if (type == job) return job_state(*this);
  return workflow_status_c_str(has_result ? result.status : status);
}

wait_error::wait_error(const char* file, unsigned line, reason why, work_record last,
                       std::string message)
    : uspec(file, line, std::move(message)), why_(why), last_(std::move(last)) {}

wait_error::~wait_error() = default;

work_record work_client::wait_for_workflow(const std::string& state_id, unsigned timeout_ms,
                                           const wait_predicate& until) {
  return _wait(work_record::workflow, state_id, timeout_ms, until);
}

work_record work_client::wait_for_job(const std::string& id, unsigned timeout_ms,
                                      const wait_predicate& until) {
  return _wait(work_record::job, id, timeout_ms, until);
}

bool work_client::check_wait(work_record& r, const wait_predicate& until) const {
  if (!state_link_ || !state_link_->get_state()) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            "waiting needs a work_client over a state connection with a replica");
  }
  look(*state_link_->get_state(), r);
  if (until ? until(r) : r.ended()) return true;
  if (r.seen && !r.live) {
    wait_error e(source_file, __LINE__, wait_error::removed, r,
                 r.describe() + " before the wait's condition held");
    throw e;
  }
  if (!state_link_->is_connected()) {
    wait_error e(source_file, __LINE__, wait_error::link_lost, r,
                 "the state connection lost its link while waiting: " + r.describe());
    throw e;
  }
  return false;
}

wait_error work_client::wait_timed_out(const work_record& r, unsigned timeout_ms) {
  return wait_error(source_file, __LINE__, wait_error::timed_out, r,
                    "waited " + std::to_string(timeout_ms) + " ms: " + r.describe());
}

work_record work_client::_wait(work_record::kind type, const std::string& id, unsigned timeout_ms,
                               const wait_predicate& until) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  work_record r;
  r.type = type;
  r.id = id;
  for (;;) {
    if (check_wait(r, until)) return r;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) throw wait_timed_out(r, timeout_ms);
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count() + 1;
    state_link_->wait(
        static_cast<unsigned>(std::min<long long>(left, static_cast<long long>(look_interval_ms))));
  }
}

}  // namespace zelcapi
