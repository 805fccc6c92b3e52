// monitor: prints every change of the cluster's state as it happens, one line each, for a
// number of seconds.
//
//   monitor HOST PORT USER PASSWORD SECONDS
//
// Each line is "<kind> <id> <change> [<data>]", for example
//   job job-0000042 update {"progress":{"percent":40,"step":"running"},"cpu-seconds":12}
// Exit status: 0 after SECONDS, 1 when the cluster could not be reached, refused the login or
// dropped the link, 2 for bad arguments.
#include <zelcapi/zelcapi.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace {

// Called on the thread inside wait(), so it needs no lock; what it is given is valid only
// during the call, which is why each line is printed at once.
class change_printer final : public zelcapi::state_handler {
 public:
  bool state_item_set(zelcapi::state_item_type type, const std::string& id,
                      const zelcore::properties& record) override {
    return line(zelcapi::state_item_type_c_str(type), id, "set", record.describe());
  }
  bool state_item_updated(zelcapi::state_item_type type, const std::string& id,
                          const zelcore::properties& fields) override {
    return line(zelcapi::state_item_type_c_str(type), id, "update", fields.describe());
  }
  bool state_item_removed(zelcapi::state_item_type type, const std::string& id) override {
    return line(zelcapi::state_item_type_c_str(type), id, "remove", "");
  }
  bool state_item_erased_property_ref(zelcapi::state_item_type type, const std::string& id,
                                      const std::string& ref) override {
    return line(zelcapi::state_item_type_c_str(type), id, "erase", ref);
  }
  bool state_item_historized(zelcapi::state_item_type type, const std::string& id) override {
    return line(zelcapi::state_item_type_c_str(type), id, "historize", "");
  }
  bool state_workflow_result_added(const std::string& id,
                                   zelcapi::workflow_result_info result) override {
    return line("workflow-result", id, "set", "status " + std::to_string(result.status));
  }
  bool state_workflow_result_removed(const std::string& id) override {
    return line("workflow-result", id, "remove", "");
  }
  // Workflow changes come as the workflow manager's commands; the action names the change.
  bool state_workflow_updated(const zelcore::properties& command) override {
    return line("workflow", command.get_string_value("state-id", "-"),
                command.get_string_value("action", "update"), command.describe());
  }
  void disconnected(const std::string& reason, bool) override { lost_ = reason; }

  const std::string& lost() const { return lost_; }

 private:
  bool line(const char* kind, const std::string& id, const std::string& change,
            const std::string& data) {
    std::printf("%s %s %s%s%s\n", kind, id.c_str(), change.c_str(), data.empty() ? "" : " ",
                data.c_str());
    return true;
  }
  std::string lost_;
};

// A number of seconds from 0 to a day; false for anything else.
bool read_seconds(const char* text, double& seconds) {
  char* end = nullptr;
  seconds = std::strtod(text, &end);
  return end != text && *end == '\0' && seconds >= 0 && seconds <= 86400;
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 0;
  if (argc != 6 || !read_seconds(argv[5], seconds)) {
    std::fprintf(stderr, "usage: %s HOST PORT USER PASSWORD SECONDS (0 to 86400)\n", argv[0]);
    return 2;
  }
  // Line by line, so that each change shows as it happens also through a pipe.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  zelcore::set_report_threshold(zelbase::severity_error);
  change_printer printer;
  // Built without a replica: the changes only reach the handler, which is all a monitor needs.
  zelcapi::state_connection c(&printer);
  const zelcapi::result_code connected = c.connect(argv[1], argv[2], 10);
  if (connected != zelcapi::connection_ok) {
    std::fprintf(stderr, "monitor: cannot connect to %s:%s: %s\n", argv[1], argv[2],
                 zelcapi::result_code_c_str(connected));
    return 1;
  }
  try {
    // The master sends its changes to every client that is logged in to it.
    const zelnet::zelp::packet& login = c.login_sync(argv[3], argv[4], "", "", 10, true);
    if (login.get_properties().is_present("error")) {
      std::fprintf(stderr, "monitor: login as '%s' failed: %s\n", argv[3],
                   login.get_properties().get_string_value("error", "").c_str());
      return 1;
    }
    // The library has no thread of its own: the changes arrive inside wait(), on this thread.
    // Short waits let the loop look at the clock between them.
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (c.is_connected() && std::chrono::steady_clock::now() < until) c.wait(100);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "monitor: %s\n", e.what());
    return 1;
  }
  if (!c.is_connected()) {
    std::fprintf(stderr, "monitor: lost the link to the cluster: %s\n", printer.lost().c_str());
    return 1;
  }
  return 0;
}
