// What a web view that follows a mirror's database pays for a save, a plain program (not in the
// test run): a private PostgreSQL server (started as the tests start theirs) holding a save of
// 100,000 job records of 20 fields, written by a state store of this program's own as a mirror
// writes them, and a `zelctl serve --from` on it. Rounds interleave two figures:
//
// - a save that changed 1% of the jobs: from its commit until the view holds it (the view's
//   "cluster" event with the save's number, read from its change stream);
// - the same view reloading everything: a `zelctl serve --from` started anew, from its start
//   until it serves (it reads and applies the last save whole, as a view that fell behind does).
//
// Prints each round, the fastest and the median of each figure, and the ratio of the fastest.
//
//   serve_from_bench [rounds]
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "child_timing.h"
#include "job_records.h"
#include "support/http_peer.h"
#include "support/postgres_server.h"
#include "zelcapi/postgres_db.h"

using zelbench::clock_type;
using zelbench::ms_since;
using zelbench::wait_for;

namespace {

// A whole save of the `records` jobs, of which `changed` from `changed_from` on have `status`.
void save_jobs(zelcapi::postgres_state_db& db, int records, int changed_from, int changed,
               int status, std::uint64_t sequence) {
  db.begin_save();
  for (int n = 0; n < records; ++n) {
    zelcore::properties record = zelbench::job_record(n);
    if (n >= changed_from && n < changed_from + changed) record.set_int_value("status", status);
    db.store_item(zelcapi::db_item_job, record.get_string_value("id"), record);
  }
  db.store_workflow_results({});
  db.store_workflow_sequence_number(sequence);
}

// Reads `stream`'s events until a "cluster" event says the view holds save `save`.
bool holds(zeltest::http_peer& stream, std::uint64_t save) {
  for (;;) {
    const zeltest::sse_event e = stream.next_event(std::chrono::seconds(60));
    if (e.name.empty()) return false;
    if (e.name == "cluster" && nlohmann::json::parse(e.data).value("save", 0ull) >= save)
      return true;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
  if (rounds < 1) {
    std::fprintf(stderr, "usage: serve_from_bench [rounds]\n");
    return 1;
  }
  const int records = zelbench::snapshot_records;
  const int changed = records / 100;
  zeltest::postgres_server server;
  const std::string db = server.fresh_database();
  zelcapi::postgres_state_db writer(db);
  save_jobs(writer, records, 0, 0, 0, 1);
  zeltest::postgres_session numbers(db);
  const auto last_save = [&] {
    return static_cast<std::uint64_t>(numbers.query_int("SELECT max(number) FROM zelcapi_saves"));
  };

  const std::vector<std::string> view{"serve", "--from", db, "--listen", "127.0.0.1:0"};
  zeltest::child_process follower(ZELCTL_PROGRAM, view);
  if (!wait_for(follower, "serving")) {
    std::fprintf(stderr, "the view did not start:\n%s", follower.err().c_str());
    return 1;
  }
  zeltest::http_peer stream(zeltest::loopback_port_in(follower.out()));
  if (stream.open_stream("/api/events?snapshot=none").status != 200) {
    std::fprintf(stderr, "the view's change stream did not open\n");
    return 1;
  }

  std::vector<double> applied, reloaded;
  for (int round = 1; round <= rounds; ++round) {
    // A different 1% each round, so that every save writes 1,000 rows.
    save_jobs(writer, records, (round * changed) % records, changed, 100 + round, 1 + round);
    const auto committed = clock_type::now();
    if (!holds(stream, last_save())) {
      std::fprintf(stderr, "the view did not follow the save:\n%s", follower.err().c_str());
      return 1;
    }
    applied.push_back(ms_since(committed));

    const auto started = clock_type::now();
    zeltest::child_process fresh(ZELCTL_PROGRAM, view);
    if (!wait_for(fresh, "serving")) {
      std::fprintf(stderr, "a fresh view did not start:\n%s", fresh.err().c_str());
      return 1;
    }
    reloaded.push_back(ms_since(started));
    std::printf(
        "round %d: a save of 1%% changed held %.1f ms after its commit; everything "
        "reloaded in %.1f ms\n",
        round, applied.back(), reloaded.back());
    std::fflush(stdout);
  }
  std::printf("a view of %d jobs (%d rounds):\n", records, rounds);
  zelbench::summary("  a save of 1% changed, commit to held", applied);
  zelbench::summary("  everything reloaded (a view started anew)", reloaded);
  const double ratio = zelbench::fastest(applied) / zelbench::fastest(reloaded);
  std::printf(
      "reader applying a 1%% save vs reloading everything  %.3f  (target <= 0.05)  %s  "
      "median %.3f\n",
      ratio, ratio <= 0.05 ? "met" : "NOT MET",
      zelbench::median(applied) / zelbench::median(reloaded));
  return 0;
}
