// zelctl watch: loads the snapshot, then prints every change of the cluster's state as it
// happens, one line each (or one JSON object a line), until Ctrl-C, --duration or --count.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "commands.h"
#include "json_output.h"
#include "kinds.h"
#include "stop_signal.h"
#include "time_text.h"
#include "zelcapi/state_connection.h"

namespace zelctl {
namespace {

struct watch_flags {
  std::string kind;
  std::string id;
  double duration = 0;
  std::uint64_t count = 0;
};

// The workflow an "update-workflow" command concerns.
std::string command_workflow_id(const zelcore::properties& command) {
  for (const char* key : {"state-id", "wf-state-id", "workflow-id", "force-state-id"}) {
    const std::string& id = command.get_string_value(key, "");
    if (!id.empty()) return id;
  }
  return command.get_string_value("input-node-id", "");
}

// Prints each change that passes the filter; counts them all.
class change_printer final : public zelcapi::state_handler {
 public:
  change_printer(const watch_flags& flags, bool json) : flags_(flags), json_(json) {}

  bool state_item_updated(zelcapi::state_item_type type, const std::string& id,
                          const zelcore::properties& props) override {
    return item(type, id, "update", to_json(props));
  }
  bool state_item_set(zelcapi::state_item_type type, const std::string& id,
                      const zelcore::properties& props) override {
    return item(type, id, "set", to_json(props));
  }
  bool state_item_removed(zelcapi::state_item_type type, const std::string& id) override {
    return item(type, id, "remove", nullptr);
  }
  bool state_item_erased_property_ref(zelcapi::state_item_type type, const std::string& id,
                                      const std::string& ref) override {
    return item(type, id, "erase", ref);
  }
  bool state_item_historized(zelcapi::state_item_type type, const std::string& id) override {
    return item(type, id, "historize", nullptr);
  }
  bool state_workflow_result_added(const std::string& id,
                                   zelcapi::workflow_result_info result) override {
    return change("workflow-result", id, "set", {{"st", result.status}, {"ht", result.ht}});
  }
  bool state_workflow_result_removed(const std::string& id) override {
    return change("workflow-result", id, "remove", nullptr);
  }
  bool state_workflow_updated(const zelcore::properties& command) override {
    return change("workflow", command_workflow_id(command),
                  command.get_string_value("action", "update"), to_json(command));
  }
  void disconnected(const std::string& reason, bool) override { lost_ = reason; }

  std::uint64_t seen() const noexcept { return seen_; }
  std::uint64_t shown() const noexcept { return shown_; }
  const std::string& lost() const noexcept { return lost_; }

 private:
  bool item(zelcapi::state_item_type type, const std::string& id, const char* what,
            const nlohmann::json& data) {
    return change(zelcapi::state_item_type_c_str(type), id, what, data);
  }

  bool change(const std::string& kind, const std::string& id, const std::string& what,
              const nlohmann::json& data) {
    ++seen_;
    if (!flags_.kind.empty() && snapshot_key_of(flags_.kind) != snapshot_key_of(kind)) return true;
    if (!flags_.id.empty() && flags_.id != id) return true;
    if (flags_.count != 0 && shown_ >= flags_.count) return true;
    ++shown_;
    const std::string time = now_text();
    if (json_) {
      nlohmann::json line{{"time", time}, {"kind", kind}, {"id", id}, {"change", what}};
      if (!data.is_null()) line["data"] = data;
      print_json(line, false);
      return true;
    }
    std::string detail = data.is_null() ? "" : json_text(data, false);
    if (detail.size() > max_detail) detail = detail.substr(0, max_detail) + "...";
    std::printf("%s %-15s %-24s %-10s %s\n", time.c_str(), kind.c_str(), id.c_str(), what.c_str(),
                detail.c_str());
    std::fflush(stdout);
    return true;
  }

  static constexpr std::size_t max_detail = 160;
  const watch_flags& flags_;
  bool json_;
  std::uint64_t seen_ = 0;
  std::uint64_t shown_ = 0;
  std::string lost_;
};

int run_watch(const watch_flags& flags, bool json, target& t) {
  zelcore::plugin_db plugins;
  change_printer printer(flags, json);
  zelcapi::state_connection c(&printer, 0, &plugins);
  install_stop_signals();
  const login_result where = load_snapshot(c, t);
  std::fprintf(stderr, "zelctl: watching %s at %s:%s (Ctrl-C stops)\n", where.master_id.c_str(),
               where.host.c_str(), where.port.c_str());
  const auto start = std::chrono::steady_clock::now();
  const auto elapsed = [&start] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  while (!stop_requested() && c.is_connected()) {
    if (flags.duration > 0 && elapsed() >= flags.duration) break;
    if (flags.count > 0 && printer.shown() >= flags.count) break;
    c.wait(100);
  }
  std::fprintf(stderr, "zelctl: %llu changes shown of %llu received in %.1f s\n",
               static_cast<unsigned long long>(printer.shown()),
               static_cast<unsigned long long>(printer.seen()), elapsed());
  if (!c.is_connected() && !stop_requested()) {
    throw failure(exit_connection, "lost the link to the cluster: " + printer.lost());
  }
  return exit_ok;
}

}  // namespace

command add_watch_command(CLI::App& app, global_options& options) {
  CLI::App* sub = app.add_subcommand(
      "watch", "print every change of the cluster's state as it happens (Ctrl-C stops)");
  auto flags = std::make_shared<watch_flags>();
  sub->add_option("--kind", flags->kind, "only changes of this kind (jobs, nodes, workflows, ...)")
      ->check(CLI::IsMember(kind_names()));
  sub->add_option("--id", flags->id, "only changes of this record or workflow");
  sub->add_option("--duration", flags->duration, "stop after this many seconds")
      ->check(CLI::PositiveNumber);
  sub->add_option("--count", flags->count, "stop after printing this many changes")
      ->check(CLI::PositiveNumber);
  add_json_flag(*sub, options);
  return {sub, [flags, &options](target& t) { return run_watch(*flags, options.json, t); }};
}

}  // namespace zelctl
