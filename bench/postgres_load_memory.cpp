// What loading a large state from the PostgreSQL store holds in memory: 1,000,000 job records of 20
// fields saved into a private server (started as the tests start theirs), then loaded into a
// state. Prints the size of the rows as the server sends them, what the loaded state holds, and
// how much more the process held at the load's peak: the rows of a table held at once, if the
// load held them, would show there. The same records loaded from an SQLite file, whose rows
// SQLite hands over one at a time, are the peer. A plain program (release preset), not a test.
//
//   postgres_load_memory [records]
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "job_records.h"
#include "support/postgres_server.h"
#include "support/resident_memory.h"
#include "zelcapi/postgres_db.h"
#include "zelcapi/sqlite_db.h"
#include "zelcapi/state.h"

namespace {

double mib(double bytes) { return bytes / (1024.0 * 1024.0); }

void save_jobs(zelcapi::state_db& db, int records) {
  db.begin_save();
  for (int n = 0; n < records; ++n) {
    const zelcore::properties record = zelbench::job_record(n);
    db.store_item(zelcapi::db_item_job, record.get_string_value("id"), record);
  }
  db.store_workflow_results({});
  db.store_workflow_sequence_number(1);
}

// Loads a state from `db` and prints what the load held; false when it loaded the wrong count.
bool measure_load(const char* store, zelcapi::state_db& db, int records, double row_bytes) {
  zelcore::plugin_db plugins;
  zelcapi::state loaded(plugins, nullptr);
  const double before = static_cast<double>(zeltest::resident_bytes());
  if (!zeltest::reset_resident_peak()) {
    std::fprintf(stderr, "postgres_load_memory: cannot reset the peak (/proc/self/clear_refs)\n");
    return false;
  }
  const auto start = std::chrono::steady_clock::now();
  loaded.set_and_update_from_state_db(&db);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double peak = static_cast<double>(zeltest::resident_peak_bytes()) - before;
  const double held = static_cast<double>(zeltest::resident_bytes()) - before;
  const std::size_t jobs = loaded.get_items(zelcapi::state_item_job).size();
  if (jobs != static_cast<std::size_t>(records)) {
    std::fprintf(stderr, "postgres_load_memory: %s loaded %zu jobs of %d\n", store, jobs, records);
    return false;
  }
  std::printf(
      "%-10s load of %d jobs in %.2f s: the state holds %.1f MiB; peak %.1f MiB, %.1f MiB "
      "above the state (%.1f%% of the rows' %.1f MiB)\n",
      store, records, seconds, mib(held), mib(peak), mib(peak - held),
      100 * (peak - held) / row_bytes, mib(row_bytes));
  std::fflush(stdout);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const int records = argc > 1 ? std::atoi(argv[1]) : 1000000;
  zeltest::postgres_server server;
  const std::string conninfo = server.fresh_database();
  {
    zelcapi::postgres_state_db writer(conninfo);
    save_jobs(writer, records);
  }
  const double row_bytes = static_cast<double>(
      server.query_int(conninfo.substr(conninfo.rfind('=') + 1),
                       "SELECT sum(length(id) + length(record::text)) FROM jobs"));
  const std::string file = server.socket_dir() + "/jobs.sqlite";
  {
    zelcapi::sqlite_state_db writer(file);
    save_jobs(writer, records);
  }
  // Each load in a process of its own, whose heap holds nothing freed that the load could reuse
  // without the system counting it.
  const auto in_child = [](const std::function<bool()>& load) {
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0) ::_exit(load() ? 0 : 1);
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
  };
  const bool postgres_loaded = in_child([&] {
    zelcapi::postgres_state_db db(conninfo);
    return measure_load("PostgreSQL", db, records, row_bytes);
  });
  const bool sqlite_loaded = in_child([&] {
    zelcapi::sqlite_state_db db(file);
    return measure_load("SQLite", db, records, row_bytes);
  });
  return postgres_loaded && sqlite_loaded ? 0 : 1;
}
