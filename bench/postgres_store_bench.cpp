// PostgreSQL store benchmarks on 100,000 job records of 20 fields, against a private server that
// the benchmark starts (initdb and pg_ctl on a Unix socket, as the tests do): the first save into
// empty tables against COPY of the same rows as JSON text from a plain libpq client, a save with
// 1% of the jobs changed against that full save, and the load against the same rows selected
// and parsed by nlohmann::json. Wall-clock time: the saver writes on its own thread and the
// server is a process of its own.
//
//   postgres_store_bench --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
#include <benchmark/benchmark.h>
#include <libpq-fe.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "job_records.h"
#include "ratio_reporter.h"
#include "save_timing.h"
#include "support/postgres_server.h"
#include "zelcapi/postgres_db.h"
#include "zelcapi/state.h"

namespace {

using zelcore::properties;

struct bench_server {
  ~bench_server() {
    if (peer) PQfinish(peer);
  }

  zeltest::postgres_server server;
  std::string conninfo = server.fresh_database();
  zelcore::plugin_db plugins;
  std::unique_ptr<zelcapi::postgres_state_db> db =
      std::make_unique<zelcapi::postgres_state_db>(conninfo);
  std::unique_ptr<zelcapi::state> st = std::make_unique<zelcapi::state>(plugins, nullptr, db.get());
  // The peer's connection and its table, of the store's layout.
  PGconn* peer = nullptr;
  // The rows as the server holds them after a save, as COPY's text format carries them.
  std::string copy_payload;
};

void check(PGresult* result, PGconn* conn, ExecStatusType expected) {
  const bool ok = PQresultStatus(result) == expected;
  PQclear(result);
  if (!ok) {
    std::fprintf(stderr, "postgres_store_bench: %s", PQerrorMessage(conn));
    std::abort();
  }
}

// COPY's text format: a backslash, tab or line end inside a field is escaped.
void append_copy_field(std::string& out, const char* text) {
  for (const char* p = text; *p; ++p) {
    if (*p == '\\' || *p == '\t' || *p == '\n' || *p == '\r') out += '\\';
    out += *p;
  }
}

bench_server& server() {
  static bench_server* built = [] {
    auto* b = new bench_server;
    for (int n = 0; n < zelbench::snapshot_records; ++n) {
      const properties record = zelbench::job_record(n);
      b->st->item_set(zelcapi::state_item_job, record.get_string_value("id"), record);
    }
    b->st->save_state_to_db(true);
    b->peer = PQconnectdb(b->conninfo.c_str());
    if (PQstatus(b->peer) != CONNECTION_OK) {
      std::fprintf(stderr, "postgres_store_bench: %s", PQerrorMessage(b->peer));
      std::abort();
    }
    check(PQexec(b->peer,
                 "CREATE TABLE peer_jobs(id text PRIMARY KEY, record jsonb NOT NULL,"
                 " saved_in bigint NOT NULL DEFAULT 0);"
                 " CREATE INDEX peer_jobs_saved_in ON peer_jobs(saved_in)"),
          b->peer, PGRES_COMMAND_OK);
    PGresult* rows = PQexec(b->peer, "SELECT id, record::text FROM jobs ORDER BY id");
    for (int r = 0; r < PQntuples(rows); ++r) {
      append_copy_field(b->copy_payload, PQgetvalue(rows, r, 0));
      b->copy_payload += '\t';
      append_copy_field(b->copy_payload, PQgetvalue(rows, r, 1));
      b->copy_payload += "\t1\n";
    }
    PQclear(rows);
    return b;
  }();
  return *built;
}

// A full save: every record written into emptied tables (the store's COPY path).
void BM_first_save_postgres(benchmark::State& s) {
  bench_server& b = server();
  for (auto _ : s) {
    b.db->clear();
    zelbench::timed_save(s, *b.st);
  }
  const zelcapi::save_counts counts = b.db->last_save_counts();
  s.counters["written"] = static_cast<double>(counts.written);
}

// The same rows as JSON text, with the number of the save, streamed by COPY into an emptied
// table of the same layout (its index on that number included), in one transaction, from a
// plain libpq client.
void BM_copy_rows_libpq(benchmark::State& s) {
  bench_server& b = server();
  for (auto _ : s) {
    check(PQexec(b.peer, "DELETE FROM peer_jobs"), b.peer, PGRES_COMMAND_OK);
    const auto start = std::chrono::steady_clock::now();
    check(PQexec(b.peer, "BEGIN"), b.peer, PGRES_COMMAND_OK);
    check(PQexec(b.peer, "DELETE FROM peer_jobs"), b.peer, PGRES_COMMAND_OK);
    check(PQexec(b.peer, "COPY peer_jobs(id, record, saved_in) FROM STDIN"), b.peer, PGRES_COPY_IN);
    const std::string& payload = b.copy_payload;
    constexpr std::size_t chunk = 1 << 16;
    for (std::size_t at = 0; at < payload.size(); at += chunk) {
      const std::size_t n = std::min(chunk, payload.size() - at);
      if (PQputCopyData(b.peer, payload.data() + at, static_cast<int>(n)) != 1) std::abort();
    }
    if (PQputCopyEnd(b.peer, nullptr) != 1) std::abort();
    check(PQgetResult(b.peer), b.peer, PGRES_COMMAND_OK);
    check(PQexec(b.peer, "COMMIT"), b.peer, PGRES_COMMAND_OK);
    s.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
}

void BM_save_unchanged_postgres(benchmark::State& s) { zelbench::unchanged_saves(s, *server().st); }

void BM_save_one_percent_changed_postgres(benchmark::State& s) {
  auto& b = server();
  zelbench::one_percent_changed_saves(s, *b.st, [&] { return b.db->last_save_counts(); });
}

void BM_load_state_postgres(benchmark::State& s) {
  bench_server& b = server();
  for (auto _ : s) {
    zelcapi::state loaded(b.plugins, nullptr);
    const auto start = std::chrono::steady_clock::now();
    loaded.set_and_update_from_state_db(b.db.get());
    s.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
}

// What a user of the server would write to get the records back: the rows selected as JSON
// text, each parsed into a document by nlohmann::json and held in a map by id, as a state holds
// its records.
void BM_load_selects_nlohmann(benchmark::State& s) {
  bench_server& b = server();
  for (auto _ : s) {
    const auto start = std::chrono::steady_clock::now();
    std::map<std::string, nlohmann::json> held;
    PGresult* rows = PQexec(b.peer, "SELECT id, record::text FROM jobs ORDER BY id");
    for (int r = 0; r < PQntuples(rows); ++r) {
      const char* text = PQgetvalue(rows, r, 1);
      held.emplace_hint(held.end(), PQgetvalue(rows, r, 0),
                        nlohmann::json::parse(text, text + PQgetlength(rows, r, 1)));
    }
    PQclear(rows);
    s.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    benchmark::DoNotOptimize(held);
  }
}

BENCHMARK(BM_first_save_postgres)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);
BENCHMARK(BM_copy_rows_libpq)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);
BENCHMARK(BM_save_unchanged_postgres)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(2);
BENCHMARK(BM_save_one_percent_changed_postgres)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(2);
BENCHMARK(BM_load_state_postgres)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);
BENCHMARK(BM_load_selects_nlohmann)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
  zelbench::initialize_repeated(&argc, argv, 3);
  server();
  zelbench::ratio_reporter reporter(zelbench::ratio_reporter::real_time);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  reporter.print_targets({
      {"first save vs COPY of the rows (libpq)", "BM_first_save_postgres", "BM_copy_rows_libpq",
       0.8, true},
      {"load vs select+nlohmann::json::parse", "BM_load_state_postgres", "BM_load_selects_nlohmann",
       1.0, false},
  });
  reporter.print_share("save of 1% changed vs full save (PostgreSQL)",
                       "BM_save_one_percent_changed_postgres", "BM_first_save_postgres", 0.05);
  reporter.print_share("save of nothing changed vs save of 1% changed (PostgreSQL)",
                       "BM_save_unchanged_postgres", "BM_save_one_percent_changed_postgres");
  reporter.print_share("save of nothing changed vs full save (PostgreSQL)",
                       "BM_save_unchanged_postgres", "BM_first_save_postgres");
  std::printf("digests: %.1f bytes a record\n",
              static_cast<double>(server().db->digest_memory_bytes()) / zelbench::snapshot_records);
  benchmark::Shutdown();
  delete &server();
  return 0;
}
