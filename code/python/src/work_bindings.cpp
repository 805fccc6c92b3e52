// The write side on the connections: submitting work and steering it through the library's
// work_client (descriptions checked by the library's converter before anything is sent), the
// outcome of each item, and waiting on a state connection's replica.
#include <pybind11/functional.h>
#include <pybind11/stl.h>

#include <climits>
#include <cmath>
#include <optional>

#include "bindings.h"
#include "callbacks.h"
#include "errors.h"
#include "tree.h"
#include "zelcapi/description.h"
#include "zelcapi/work_client.h"
#include "zelcore/identifiers.h"

namespace zelpy {

namespace {

using zelcapi::work_client;
using zelcapi::write_result;

// One write request, built before anything is sent: workflow actions, plain jobs or the
// steering of jobs.
struct write_request {
  enum kind { workflows, jobs, steer };
  kind type = workflows;
  std::vector<zelcore::properties> items;  // the actions, or the jobs' descriptions
  std::string name;                        // a submission's name
  zelcapi::job_action action = zelcapi::job_action::cancel;
  std::vector<std::string> ids;
  std::int64_t priority = 0;
};

write_result send_sync(work_client& w, const write_request& r, const zelcapi::write_options& o) {
  switch (r.type) {
    case write_request::jobs: return w.submit_jobs(r.items, r.name, o);
    case write_request::steer: return w.steer_jobs(r.action, r.ids, r.priority, o);
    case write_request::workflows: break;
  }
  return w.update_workflows(r.items, o);
}

void send_async(work_client& w, const write_request& r, const zelcapi::write_options& o,
                work_client::write_callback done) {
  switch (r.type) {
    case write_request::jobs: return w.submit_jobs_async(r.items, r.name, o, std::move(done));
    case write_request::steer:
      return w.steer_jobs_async(r.action, r.ids, r.priority, o, std::move(done));
    case write_request::workflows: break;
  }
  w.update_workflows_async(r.items, o, std::move(done));
}

zelcapi::write_options options_of(const std::optional<std::string>& key, bool dry_run) {
  zelcapi::write_options o;
  o.key = key.value_or("");
  o.dry_run = dry_run;
  return o;
}

// Ids as a str (one id) or an iterable of str.
std::vector<std::string> ids_of(py::handle ids) {
  if (PyUnicode_Check(ids.ptr())) return {ids.cast<std::string>()};
  std::vector<std::string> out;
  for (py::handle id : py::iter(ids)) {
    if (!PyUnicode_Check(id.ptr())) {
      throw py::type_error("an id is a str, not " +
                           py::str(py::type::handle_of(id).attr("__name__")).cast<std::string>());
    }
    out.push_back(id.cast<std::string>());
  }
  return out;
}

// The settings of a description's in-values from a dict of name -> value (None: none).
std::vector<zelcapi::description_setting> settings_of(py::handle values) {
  std::vector<zelcapi::description_setting> settings;
  if (values.is_none()) return settings;
  if (!PyDict_Check(values.ptr())) throw py::type_error("values must be a dict of in-values");
  for (const auto& [name, value] : py::reinterpret_borrow<py::dict>(values)) {
    if (!PyUnicode_Check(name.ptr())) throw py::type_error("an in-value's name is a str");
    const std::string text = name.cast<std::string>();
    settings.push_back({text, property_from_python(value, "values/" + text)});
  }
  return settings;
}

// A description checked and converted; raises DescriptionError naming every error, with the
// path of description `index` of many (-1: the only one) before each.
zelcapi::work_description checked(py::handle description, py::handle values, int index = -1) {
  const std::string where = index < 0 ? "" : "/" + std::to_string(index);
  if (!PyDict_Check(description.ptr())) {
    throw py::type_error(
        "a work description is a dict, not " +
        py::str(py::type::handle_of(description).attr("__name__")).cast<std::string>() +
        (where.empty() ? "" : " (at '" + where + "')"));
  }
  const std::vector<zelcapi::description_setting> settings = settings_of(values);
  zelcapi::work_description d =
      zelcapi::convert_description(properties_from_python(description, where), settings);
  if (!d.errors.empty()) {
    for (zelcapi::description_error& e : d.errors) {
      if (e.setting < 0) e.path = where + e.path;
    }
    raise_description_errors(d.errors, settings);
  }
  return d;
}

write_request submit_request(work_client& w, py::object description, const std::string& id,
                             py::object values) {
  const zelcapi::work_description d = checked(description, values);
  write_request r;
  if (d.kind == zelcapi::description_kind::jobs) {
    if (!id.empty()) throw py::value_error("a jobs description takes no id: the master names jobs");
    r.type = write_request::jobs;
    r.name = d.name;
    for (const zelcore::property_ptr& job : d.submission.get_list_value("jobs")) {
      r.items.push_back(static_cast<const zelcore::properties&>(*job));
    }
    return r;
  }
  if (!d.is_template) {
    r.items.push_back(w.actions().add_workflow(d.workflow, id));
    return r;
  }
  // A template and the workflow that its values spawn, in one request: the spawn names the
  // template, so the template's id is made here when the caller gives none.
  const std::string template_id = id.empty() ? "WOFL-" + zelcore::string_uuid(false) : id;
  r.items.push_back(w.actions().add_workflow(d.workflow, template_id));
  r.items.push_back(d.spawn_action(template_id, ""));
  return r;
}

write_request submit_many_request(work_client& w, py::object descriptions) {
  write_request r;
  int index = 0;
  for (py::handle description : py::iter(descriptions)) {
    const zelcapi::work_description d = checked(description, py::none(), index);
    if (d.kind != zelcapi::description_kind::workflow) {
      throw py::value_error("/" + std::to_string(index) +
                            ": submit_many takes workflows; submit plain jobs with submit");
    }
    r.items.push_back(w.actions().add_workflow(d.workflow));
    ++index;
  }
  return r;
}

write_request each_request(
    work_client& w, py::object ids,
    zelcore::properties (zelcapi::workflow_actions::*build)(const std::string&) const) {
  write_request r;
  for (const std::string& id : ids_of(ids)) r.items.push_back((w.actions().*build)(id));
  return r;
}

write_request remove_request(work_client& w, py::object ids) {
  return each_request(w, std::move(ids), &zelcapi::workflow_actions::remove_workflow);
}

write_request cancel_request(work_client& w, py::object ids) {
  return each_request(w, std::move(ids), &zelcapi::workflow_actions::cancel_workflow);
}

write_request priority_request(work_client& w, py::object ids, std::int64_t priority) {
  write_request r;
  for (const std::string& id : ids_of(ids)) {
    r.items.push_back(w.actions().set_priority(id, priority));
  }
  return r;
}

write_request retry_task_request(work_client& w, const std::string& id, const std::string& task) {
  write_request r;
  r.items.push_back(w.actions().retry_task(id, task));
  return r;
}

write_request pass_values_request(work_client& w, const std::string& id, py::object values,
                                  const std::string& spawn_id) {
  write_request r;
  r.items.push_back(
      w.actions().set_in_values(id, properties_from_python(values, "values"), spawn_id));
  return r;
}

write_request add_dependant_request(work_client& w, const std::string& id,
                                    const std::string& dependant) {
  write_request r;
  r.items.push_back(w.actions().add_dependant(id, dependant));
  return r;
}

write_request steer_jobs_request(work_client&, const std::string& action, py::object ids,
                                 std::int64_t priority) {
  static const std::pair<const char*, zelcapi::job_action> actions[] = {
      {"cancel", zelcapi::job_action::cancel},
      {"hold", zelcapi::job_action::hold},
      {"release", zelcapi::job_action::release},
      {"retry", zelcapi::job_action::retry},
      {"priority", zelcapi::job_action::priority}};
  write_request r;
  r.type = write_request::steer;
  r.ids = ids_of(ids);
  r.priority = priority;
  for (const auto& [name, value] : actions) {
    if (action == name) {
      r.action = value;
      return r;
    }
  }
  throw py::value_error("'" + action +
                        "' is not a job action: cancel, hold, release, retry or priority");
}

using connection = zelcapi::connection;
using connection_class = py::class_<connection, connection_holder<connection>>;

// Defines `name` (blocking: returns the WriteResult) and `name`_async (callback(result, error))
// on Connection, both sending the request that `build` makes from their arguments. With check,
// a refused item raises (is the error) as its Refused.
template <class... Args, class... Names>
void def_write(connection_class& cls, const char* name,
               write_request (*build)(work_client&, Args...), const char* doc, Names... names) {
  cls.def(
      name,
      [build](connection& c, Args... args, const std::optional<std::string>& key, bool dry_run,
              bool check) {
        const python_side::use user(side_of(c));
        work_client& w = side_of(c).work(c);
        const write_result result =
            send_sync(w, build(w, std::forward<Args>(args)...), options_of(key, dry_run));
        if (check) raise_if_refused(result);
        return result;
      },
      names..., py::arg("key") = py::none(), py::arg("dry_run") = false, py::arg("check") = true,
      doc);
  cls.def((std::string(name) + "_async").c_str(),
          [build](connection& c, Args... args, py::function callback,
                  const std::optional<std::string>& key, bool dry_run, bool check) {
            const python_side::use user(side_of(c));
            work_client& w = side_of(c).work(c);
            const write_request request = build(w, std::forward<Args>(args)...);
            send_async(w, request, options_of(key, dry_run),
                       [held = hold(std::move(callback)), check](const write_result& result,
                                                                 std::exception_ptr error) {
                         gil_for_callback gil;
                         if (error) {
                           (*held)(py::none(), exception_object(error));
                           return;
                         }
                         py::object refusal = check ? refusal_of(result) : py::none();
                         if (!refusal.is_none()) {
                           (*held)(py::none(), refusal);
                         } else {
                           (*held)(py::cast(result), py::none());
                         }
                       });
          },
          names..., py::arg("callback"), py::arg("key") = py::none(), py::arg("dry_run") = false,
          py::arg("check") = true, "The same, returning at once: callback(result, error).");
}

// A job's id begins with "job-"; any other id is a workflow's state id.
zelcapi::work_record::kind kind_of(const std::string& id, const std::optional<std::string>& kind) {
  if (!kind) {
    return id.rfind("job-", 0) == 0 ? zelcapi::work_record::job : zelcapi::work_record::workflow;
  }
  if (*kind == "job") return zelcapi::work_record::job;
  if (*kind == "workflow") return zelcapi::work_record::workflow;
  throw py::value_error("kind '" + *kind + "' is not job or workflow");
}

zelcapi::work_client::wait_predicate predicate_of(py::object until) {
  if (until.is_none()) return {};
  // Called inside the wait with the GIL held; what it raises leaves the wait.
  return [until](const zelcapi::work_record& r) { return truth(until(r)); };
}

// Seconds as a wait's milliseconds; None: as long as a wait can be.
unsigned timeout_ms(std::optional<double> seconds) {
  if (!seconds) return UINT_MAX;
  if (!(*seconds >= 0)) throw py::value_error("a time-out is not negative");
  const double ms = std::ceil(*seconds * 1000);
  return ms >= static_cast<double>(UINT_MAX) ? UINT_MAX : static_cast<unsigned>(ms);
}

void bind_results(py::module_& m) {
  py::class_<zelcapi::item_result>(m, "ItemResult", "What the master did with one item.")
      .def_property_readonly(
          "outcome",
          [](const zelcapi::item_result& i) { return zelcapi::write_outcome_c_str(i.outcome); },
          "done, already-done, not-found, not-allowed, access-denied or invalid.")
      .def_readonly("message", &zelcapi::item_result::text, "Why, naming the object.")
      .def_readonly("owner", &zelcapi::item_result::owner, "With access-denied: the owner.")
      .def_readonly("id", &zelcapi::item_result::id, "The workflow's state id or the job's id.")
      .def_readonly("action", &zelcapi::item_result::action, "A workflow action's name.")
      .def_property_readonly("ok", &zelcapi::item_result::ok, "Done or already done.")
      .def("__repr__", [](const zelcapi::item_result& i) {
        return "ItemResult(" + std::string(zelcapi::write_outcome_c_str(i.outcome)) + ", id='" +
               i.id + "'" + (i.text.empty() ? "" : ", message='" + i.text + "'") + ")";
      });

  py::class_<write_result>(m, "WriteResult", "The master's answer to one write request.")
      .def_readonly("items", &write_result::items, "One ItemResult per item, in order.")
      .def_readonly("key", &write_result::key, "The client key the request carried.")
      .def_readonly("submission_id", &write_result::submission_id)
      .def_readonly("repeated", &write_result::repeated,
                    "The master's stored answer to an earlier send of the key.")
      .def_readonly("dry_run", &write_result::dry_run)
      .def_property_readonly("all_ok", &write_result::all_ok)
      .def_property_readonly(
          "ids",
          [](const write_result& r) {
            std::vector<std::string> ids;
            for (const zelcapi::item_result& i : r.items) ids.push_back(i.id);
            return ids;
          },
          "The items' ids.")
      .def("__repr__", [](const write_result& r) {
        return "WriteResult(key='" + r.key + "', " + std::to_string(r.items.size()) + " items" +
               (r.all_ok() ? ", all ok" : "") + ")";
      });

  using zelcapi::work_record;
  py::class_<work_record>(m, "WorkRecord", "A job or workflow as a wait last saw it.")
      .def(py::init([](const std::string& id, const std::optional<std::string>& kind) {
             work_record r;
             r.type = kind_of(id, kind);
             r.id = id;
             return r;
           }),
           py::arg("id"), py::arg("kind") = py::none(),
           "Nothing seen yet of job or workflow id (kind: 'job' or 'workflow'; default: an id "
           "beginning with 'job-' is a job).")
      .def_property_readonly(
          "kind",
          [](const work_record& r) { return r.type == work_record::job ? "job" : "workflow"; })
      .def_readonly("id", &work_record::id)
      .def_readonly("seen", &work_record::seen, "The replica held it during the wait.")
      .def_readonly("live", &work_record::live, "The replica holds it now.")
      .def_property_readonly(
          "record", [](const work_record& r) { return to_python(r.record); },
          "The job's record or the workflow's encoding.")
      .def_property_readonly("state", &work_record::state_name,
                             "A job's state; a workflow's status (its result's once it has one).")
      .def_property_readonly("ended", &work_record::ended)
      .def_property_readonly(
          "result",
          [](const work_record& r) -> py::object {
            if (!r.has_result) return py::none();
            py::dict out;
            out["st"] = r.result.status;
            out["ht"] = r.result.ht;
            return std::move(out);
          },
          "A workflow's result ({'st': status, 'ht': jobs run}), or None.")
      .def("describe", &work_record::describe)
      .def("__copy__", [](const work_record& r) { return r; })
      .def("__repr__", [](const work_record& r) { return "WorkRecord(" + r.describe() + ")"; });
}

}  // namespace

void bind_work(py::module_& m) {
  bind_results(m);
  auto cls = py::reinterpret_borrow<connection_class>(m.attr("Connection"));
  def_write(cls, "submit", &submit_request,
            "Checks a work description (a workflow or plain jobs, as a dict) and submits it under "
            "id (a workflow; empty: the master names it) with values for its in-values; a "
            "template is added and a workflow spawned from it with the values (two items). A "
            "description with errors raises DescriptionError naming each, and nothing is sent.",
            py::arg("description"), py::arg("id") = "", py::arg("values") = py::none());
  def_write(cls, "submit_many", &submit_many_request,
            "Checks workflow descriptions and submits them in one request.",
            py::arg("descriptions"));
  def_write(cls, "remove", &remove_request,
            "Removes workflows (a state id or several): their jobs end, no result is kept.",
            py::arg("ids"));
  def_write(cls, "cancel", &cancel_request,
            "Cancels workflows: their jobs end and they end killed, with a result.",
            py::arg("ids"));
  def_write(cls, "set_priority", &priority_request, "Sets the priority of workflows.",
            py::arg("ids"), py::arg("priority"));
  def_write(cls, "retry_task", &retry_task_request,
            "Lets a failed task run once more (needs the workflow in the replica).", py::arg("id"),
            py::arg("task"));
  def_write(cls, "pass_values", &pass_values_request,
            "Sets in-values (in-node path 'task>node' -> value) of a workflow; on a template it "
            "spawns a workflow under spawn_id (empty: the master names it). Needs the replica.",
            py::arg("id"), py::arg("values"), py::arg("spawn_id") = "");
  def_write(cls, "add_dependant", &add_dependant_request,
            "Makes workflow dependant depend on workflow id.", py::arg("id"), py::arg("dependant"));
  def_write(cls, "steer_jobs", &steer_jobs_request,
            "cancel, hold, release, retry or priority (with priority) on plain jobs.",
            py::arg("action"), py::arg("ids"), py::arg("priority") = 0);
  cls.def_property(
         "write_timeout", used(+[](connection& c) { return side_of(c).work(c).get_timeout(); }),
         used(+[](connection& c, unsigned seconds) { side_of(c).work(c).set_timeout(seconds); }),
         "Seconds a write request waits for its reply before it is sent again.")
      .def_property(
          "write_retries", used(+[](connection& c) { return side_of(c).work(c).get_retries(); }),
          used(+[](connection& c, unsigned retries) { side_of(c).work(c).set_retries(retries); }),
          "How often a write request is sent again, with its key, after a time-out.")
      .def("wait_for",
           used(+[](connection& c, const std::string& id, std::optional<double> timeout,
                    std::optional<std::string> kind, py::object until) {
             work_client& w = side_of(c).work(c);
             const unsigned ms = timeout_ms(timeout);
             if (kind_of(id, kind) == zelcapi::work_record::job) {
               return w.wait_for_job(id, ms, predicate_of(until));
             }
             return w.wait_for_workflow(id, ms, predicate_of(until));
           }),
           py::arg("id"), py::arg("timeout") = py::none(), py::arg("kind") = py::none(),
           py::arg("until") = py::none(),
           "Runs the state connection until until(record) holds (default: the work ended) and "
           "returns the WorkRecord; raises WaitTimeout, WorkRemoved or LinkLost with the last "
           "record. kind: 'job' or 'workflow' (default: an id beginning with 'job-' is a job).")
      .def("check_wait", used(+[](connection& c, zelcapi::work_record& record, py::object until) {
             return side_of(c).work(c).check_wait(record, predicate_of(until));
           }),
           py::arg("record"), py::arg("until") = py::none(),
           "One look of a wait: reads record's present form from the replica; True when "
           "until(record) holds; raises WorkRemoved or LinkLost as wait_for does.")
      .def_static(
          "wait_timed_out",
          [](const zelcapi::work_record& record, double seconds) {
            return exception_object(
                std::make_exception_ptr(work_client::wait_timed_out(record, timeout_ms(seconds))));
          },
          py::arg("record"), py::arg("timeout"),
          "The WaitTimeout of a wait of timeout seconds that last saw record.");
}

}  // namespace zelpy
