// state_mirror: keeps a replica of the cluster's state current for a number of seconds and saves
// it into an SQLite file every 5 seconds and at the end, with the records that went to history
// in the last hour. It loads what the file holds first.
//
//   state_mirror HOST PORT USER PASSWORD FILE SECONDS
//   sqlite3 FILE "SELECT json_extract(record, '$.state'), count(*) FROM jobs GROUP BY 1"
//
// Exit status: 0 after SECONDS, 1 when the file cannot be used, the cluster could not be
// reached, refused the login or dropped the link (what arrived until then is saved), 2 for bad
// arguments.
#include <zelcapi/sqlite_db.h>
#include <zelcapi/zelcapi.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace {

using steady = std::chrono::steady_clock;

// Long enough to keep a save's cost small, short enough to lose little when the process dies.
constexpr auto save_interval = std::chrono::seconds(5);
constexpr std::uint32_t history_keep_seconds = 3600;

// A mirror prints no change; it only needs to know why the link went.
class link_watch final : public zelcapi::state_handler {
 public:
  void disconnected(const std::string& reason, bool) override { lost = reason; }
  std::string lost;
};

// Saves run on a thread of their own and raise nothing: a failed one is told as an error report
// of the category "State". Sinks must be thread-safe, hence the atomics.
std::atomic<bool> save_failed{false};
// The changes that arrive between the login and the snapshot are applied to what the file held
// and may name records it lacks; the snapshot replaces them all, so their failures don't count.
std::atomic<bool> snapshot_taken{false};

void on_report(const zelcore::report_record& r) {
  if (r.record_severity > zelbase::severity_error) return;
  if (!snapshot_taken && r.category != "State") return;
  std::fprintf(stderr, "state_mirror: %s\n", r.message.c_str());
  if (r.category == "State") save_failed = true;
}

// A number of seconds from 0 to a day; false for anything else.
bool read_seconds(const char* text, double& seconds) {
  char* end = nullptr;
  seconds = std::strtod(text, &end);
  return end != text && *end == '\0' && seconds >= 0 && seconds <= 86400;
}

// Connects, logs in and takes the snapshot that replaces what the file held; false (with the
// reason on stderr) when the cluster cannot be reached or refuses the login.
bool reach(zelcapi::state_connection& c, char** argv) {
  const zelcapi::result_code connected = c.connect(argv[1], argv[2], 10);
  if (connected != zelcapi::connection_ok) {
    std::fprintf(stderr, "state_mirror: cannot connect to %s:%s: %s\n", argv[1], argv[2],
                 zelcapi::result_code_c_str(connected));
    return false;
  }
  const zelcore::properties& login =
      c.login_sync(argv[3], argv[4], "", "", 10, true).get_properties();
  if (login.is_present("error")) {
    std::fprintf(stderr, "state_mirror: login as '%s' failed: %s\n", argv[3],
                 login.get_string_value("error", "").c_str());
    return false;
  }
  c.request_new_state_sync();
  snapshot_taken = true;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 0;
  if (argc != 7 || !read_seconds(argv[6], seconds)) {
    std::fprintf(stderr, "usage: %s HOST PORT USER PASSWORD FILE SECONDS (0 to 86400)\n", argv[0]);
    return 2;
  }
  const std::string path = argv[5];
  // Line by line, so that the progress shows at once also in a log file.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  zelcore::set_report_sink(on_report);
  try {
    // Declared before the connection, so that they outlive its replica: the replica's destructor
    // waits for a save still writing to the file.
    zelcapi::sqlite_state_db states(path);
    zelcapi::sqlite_history_db history(path);
    zelcore::plugin_db plugins;
    link_watch watch;
    // Keep time 0 at construction: a keep time without a history_db would also keep the
    // history in memory. With the history_db set first, history goes to the file only.
    zelcapi::state_connection c(&watch, 0, &plugins);
    zelcapi::state& replica = *c.get_state_non_const();
    replica.set_history_db(&history);
    replica.set_history_keep_time(history_keep_seconds);
    // Also makes the file the replica's state_db, which save_state_to_db writes to.
    replica.set_and_update_from_state_db(&states);
    std::printf("loaded %s: %zu jobs\n", path.c_str(),
                replica.get_items(zelcapi::state_item_job).size());

    if (!reach(c, argv)) return 1;
    std::printf("snapshot: %zu jobs\n", replica.get_items(zelcapi::state_item_job).size());
    const auto until = steady::now() + std::chrono::duration<double>(seconds);
    auto next_save = steady::now() + save_interval;
    while (c.is_connected() && steady::now() < until) {
      c.wait(100);  // the notifications change the replica inside this call
      if (steady::now() >= next_save) {
        // The save runs on a thread of its own from a copy; false: skip it if the previous one
        // is still writing rather than block the notifications.
        replica.save_state_to_db(false);
        replica.clean_history();
        next_save = steady::now() + save_interval;
      }
    }
    replica.save_state_to_db(true);
    std::printf("%s %s: %zu jobs, %llu historized jobs\n", save_failed ? "not saved" : "saved",
                path.c_str(), replica.get_items(zelcapi::state_item_job).size(),
                static_cast<unsigned long long>(history.count_items(zelcapi::db_item_job)));
    if (!c.is_connected()) {
      std::fprintf(stderr, "state_mirror: lost the link to the cluster: %s\n", watch.lost.c_str());
      return 1;
    }
    if (save_failed) return 1;
  } catch (const std::exception& e) {
    // The file could not be opened or loaded, or the snapshot did not come.
    std::fprintf(stderr, "state_mirror: %s\n", e.what());
    return 1;
  }
  return 0;
}
