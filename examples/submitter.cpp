// submitter: submits a small workflow to a cluster, waits until it has ended and exits by how it
// ended.
//
//   submitter HOST PORT USER PASSWORD [--fail] [NAME=VALUE ...]
//
// The workflow is a work description (docs/descriptions.md) built here as a property tree:
// "prepare" reads the in-value "input" and passes its out-value "manifest" to "process", which
// runs after it, and "report" runs last. Each NAME=VALUE gives one of the in-values ("input",
// "quality"), read as that in-value's kind. --fail makes "process" fail (on a simulated cluster)
// to show a failed end. Prints what the master answered, then the end.
//
// Exit status, as zelctl submit's (docs/zelctl.md): 0 the workflow finished; 1 bad arguments;
// 2 the cluster could not be reached, refused the login or the link was lost; 3 the request was
// refused whole or got no answer; 4 a description with errors (nothing was sent); 5 the master
// refused the workflow; 6 it failed; 7 it was cancelled (killed); 8 the wait timed out; 9 it was
// removed before it ended.
#include <zelcapi/zelcapi.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace {

zelcore::property_ptr tree(const zelcore::properties& p) {
  return zelcore::property_ptr(new zelcore::properties(p));
}

zelcore::properties task(const std::string& name, const std::string& command,
                         const std::string& after) {
  zelcore::properties t;
  t.set_string_value("name", name);
  t.set_string_value("command", command);
  t.set_int_value("run-ms", 200);  // how long it runs on a simulated cluster
  if (!after.empty()) {
    t.set_string_value("after", after);
    t["inputs"] = zelcore::make_string_list({});  // the workflow's in-values go to "prepare" only
  }
  return t;
}

// The description: what a YAML file for `zelctl submit` would hold.
zelcore::properties pipeline(bool fail) {
  zelcore::properties input;
  input.set_string_value("kind", "string");
  input.set_string_value("default", "shots/sh010");
  zelcore::properties quality;
  quality.set_string_value("kind", "int");
  quality.set_int_value("default", 2);
  zelcore::properties inputs;
  inputs.set_properties_value("input", input);
  inputs.set_properties_value("quality", quality);

  zelcore::properties prepare = task("prepare", "prepare --input \"$input\"", "");
  prepare["outputs"] = zelcore::make_string_list({"manifest"});
  zelcore::properties process = task("process", "process manifest.json", "prepare");
  if (fail) process.set_int_value("fail-attempts", 1);
  zelbase::ptr_refcount<zelcore::property_list> tasks(new zelcore::property_list());
  tasks->push_back(tree(prepare));
  tasks->push_back(tree(process));
  tasks->push_back(tree(task("report", "report --mail team@example.com", "process")));

  zelcore::properties d;
  d.set_string_value("name", "example-pipeline");
  d.set_properties_value("inputs", inputs);
  d["tasks"] = tasks;
  return d;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: %s HOST PORT USER PASSWORD [--fail] [NAME=VALUE ...]\n", argv[0]);
    return 1;
  }
  bool fail = false;
  std::vector<zelcapi::description_setting> settings;
  std::vector<std::string> setting_texts;
  for (int i = 5; i < argc; ++i) {
    if (std::string(argv[i]) == "--fail") {
      fail = true;
      continue;
    }
    try {
      settings.push_back(zelcapi::parse_description_setting(argv[i]));
      setting_texts.push_back(argv[i]);
    } catch (const zelbase::es::arg& e) {
      std::fprintf(stderr, "submitter: %s\n", e.message().c_str());
      return 1;
    }
  }
  // Every error of the description at once, before anything is sent.
  const zelcapi::work_description d = zelcapi::convert_description(pipeline(fail), settings);
  if (!d.valid()) {
    for (const zelcapi::description_error& e : d.errors) {
      const std::string where =
          e.setting >= 0 ? setting_texts.at(e.setting) : (e.path.empty() ? "/" : e.path);
      std::fprintf(stderr, "submitter: %s: %s\n", where.c_str(), e.message.c_str());
    }
    return 4;
  }

  // The library reports its own progress through zelcore::report; only errors matter here.
  zelcore::set_report_threshold(zelbase::severity_error);
  const unsigned timeout = 10;
  zelcore::plugin_db plugins;
  zelcapi::state_handler quiet;
  // A replica (with an hour of history, where an ended workflow is found) to wait on.
  zelcapi::state_connection c(&quiet, 3600, &plugins);
  const zelcapi::result_code connected = c.connect(argv[1], argv[2], timeout);
  if (connected != zelcapi::connection_ok) {
    std::fprintf(stderr, "submitter: cannot connect to %s:%s: %s\n", argv[1], argv[2],
                 zelcapi::result_code_c_str(connected));
    return 2;
  }
  try {
    // Any node will do: login_sync follows the cluster to its master, where requests go.
    const zelnet::zelp::packet& login = c.login_sync(argv[3], argv[4], "", "", timeout, true);
    if (login.get_properties().is_present("error")) {
      std::fprintf(stderr, "submitter: login as '%s' failed: %s\n", argv[3],
                   login.get_properties().get_string_value("error", "").c_str());
      return 2;
    }
    // The snapshot first, so that the wait sees every change of the workflow.
    c.request_new_state_sync();

    zelcapi::work_client work(c, plugins);
    work.set_timeout(timeout);
    // A key made by the library: its own retry after a time-out makes nothing twice.
    const zelcapi::write_result submitted = work.update_workflows({d.add_workflow_action("")});
    const zelcapi::item_result& item = submitted.items.at(0);
    std::printf("submitted '%s' with key %s: %s%s%s\n", d.name.c_str(), submitted.key.c_str(),
                zelcapi::write_outcome_c_str(item.outcome), item.text.empty() ? "" : ": ",
                item.text.c_str());
    if (!submitted.all_ok()) return 5;
    std::printf("workflow %s\n", item.id.c_str());
    std::fflush(stdout);

    const zelcapi::work_record end = work.wait_for_workflow(item.id, 10 * 60 * 1000);
    std::printf("%s\n", end.describe().c_str());
    const std::uint32_t status = end.has_result ? end.result.status : end.status;
    if (status == zelworkflow::workflow_info::status_finished) return 0;
    return status == zelworkflow::workflow_info::status_failed ? 6 : 7;
  } catch (const zelcapi::wait_error& e) {
    // Timed out, removed without a result, or the link lost: the last state seen is said.
    std::fprintf(stderr, "submitter: %s\n", e.message().c_str());
    switch (e.why()) {
      case zelcapi::wait_error::timed_out: return 8;
      case zelcapi::wait_error::removed: return 9;
      default: return 2;
    }
  } catch (const zelcapi::write_error& e) {
    // No answer in time, the link lost before the reply, or the request refused whole.
    std::fprintf(stderr, "submitter: %s\n", e.message().c_str());
    return e.why() == zelcapi::write_error::link_lost ? 2 : 3;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "submitter: %s\n", e.what());
    return 2;
  }
}
