// State store benchmarks on a large cluster's state (100,000 jobs of 20 fields, 1,000
// workflows): the saver into an empty SQLite store against plain prepared inserts of the same
// rows, a save with 1% of the jobs changed against that full save,
// the load from the file against the same selects with each record parsed by nlohmann::json
// (and, for information, against bare row stepping), and a snapshot out of a state and into
// another against nlohmann::json holding the same records. Wall-clock time: the saver writes on
// its own thread and both sides wait on the disk.
//
//   state_store_bench --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "job_records.h"
#include "ratio_reporter.h"
#include "save_timing.h"
#include "support/sample_workflows.h"
#include "zelcapi/sqlite_db.h"
#include "zelcapi/state.h"

namespace {

using zelcore::properties;

constexpr int workflow_count = 1000;
const char* const tables[] = {"clients", "nodes", "submissions", "sources",
                              "slots",   "jobs",  "tasks",       "workflows"};

// The scratch directory of the run, removed at exit.
const std::filesystem::path& scratch() {
  static const std::filesystem::path dir = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "zelbench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) std::abort();
    std::atexit([] { std::filesystem::remove_all(scratch()); });
    return std::filesystem::path(pattern);
  }();
  return dir;
}

struct big_state {
  zelcore::plugin_db plugins;
  std::unique_ptr<zelcapi::sqlite_state_db> db;
  std::unique_ptr<zelcapi::state> st;
  double job_bytes_per_field = 0;
};

// Built on a thread of its own, whose block cache starts empty, so that the heap growth
// counts every block that the job records take.
big_state& state_under_test() {
  static big_state* built = [] {
    auto* b = new big_state;
    b->db = std::make_unique<zelcapi::sqlite_state_db>((scratch() / "state.db").string());
    b->st = std::make_unique<zelcapi::state>(b->plugins, nullptr, b->db.get());
    std::thread([b] {
      const std::size_t before = mallinfo2().uordblks;
      for (int n = 0; n < zelbench::snapshot_records; ++n) {
        const properties record = zelbench::job_record(n);
        b->st->item_set(zelcapi::state_item_job, record.get_string_value("id"), record);
      }
      b->job_bytes_per_field = static_cast<double>(mallinfo2().uordblks - before) /
                               (static_cast<double>(zelbench::snapshot_records) * 20);
      for (int n = 0; n < workflow_count; ++n)
        b->st->add_workflow(
            "", zeltest::sample_workflow(zelworkflow::workflow_info::workflow_type_spawned, 5));
    }).join();
    b->st->save_state_to_db(true);
    return b;
  }();
  return *built;
}

// The rows of the saved file, table by table, as (id, JSON text).
using rows = std::vector<std::pair<std::string, std::string>>;
const std::vector<rows>& saved_rows() {
  static const std::vector<rows> all = [] {
    state_under_test();
    sqlite3* db = nullptr;
    sqlite3_open((scratch() / "state.db").string().c_str(), &db);
    std::vector<rows> out;
    for (const char* table : tables) {
      rows r;
      sqlite3_stmt* s = nullptr;
      sqlite3_prepare_v2(db, (std::string("SELECT id, record FROM ") + table).c_str(), -1, &s,
                         nullptr);
      while (sqlite3_step(s) == SQLITE_ROW)
        r.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)),
                       reinterpret_cast<const char*>(sqlite3_column_text(s, 1)));
      sqlite3_finalize(s);
      out.push_back(std::move(r));
    }
    sqlite3_close(db);
    return out;
  }();
  return all;
}

// A plain connection to a file of the same schema, WAL and synchronous=NORMAL as the store.
sqlite3* peer_file() {
  static sqlite3* db = [] {
    const std::string path = (scratch() / "peer.db").string();
    { zelcapi::sqlite_state_db create(path); }
    sqlite3* d = nullptr;
    sqlite3_open(path.c_str(), &d);
    sqlite3_exec(d, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
    return d;
  }();
  return db;
}

// A full save: every record written into emptied tables.
void BM_save_state_sqlite(benchmark::State& s) {
  big_state& b = state_under_test();
  for (auto _ : s) {
    b.db->clear();
    zelbench::timed_save(s, *b.st);
  }
}

void BM_save_unchanged_sqlite(benchmark::State& s) {
  zelbench::unchanged_saves(s, *state_under_test().st);
}

void BM_save_one_percent_changed_sqlite(benchmark::State& s) {
  auto& b = state_under_test();
  zelbench::one_percent_changed_saves(s, *b.st, [&] { return b.db->last_save_counts(); });
}

void BM_save_plain_inserts(benchmark::State& s) {
  const std::vector<rows>& all = saved_rows();
  sqlite3* db = peer_file();
  std::vector<sqlite3_stmt*> inserts;
  for (const char* table : tables) {
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, (std::string("INSERT INTO ") + table + " VALUES(?1, ?2)").c_str(), -1,
                       &insert, nullptr);
    inserts.push_back(insert);
  }
  for (auto _ : s) {
    // Emptied before the clock starts, as the saver's file is emptied by clear() before its save.
    sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    for (const char* table : tables)
      sqlite3_exec(db, (std::string("DELETE FROM ") + table).c_str(), nullptr, nullptr, nullptr);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    const auto start = std::chrono::steady_clock::now();
    sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    for (std::size_t t = 0; t < all.size(); ++t) {
      for (const auto& [id, json] : all[t]) {
        sqlite3_bind_text(inserts[t], 1, id.data(), static_cast<int>(id.size()), SQLITE_STATIC);
        sqlite3_bind_text(inserts[t], 2, json.data(), static_cast<int>(json.size()), SQLITE_STATIC);
        if (sqlite3_step(inserts[t]) != SQLITE_DONE) s.SkipWithError(sqlite3_errmsg(db));
        sqlite3_reset(inserts[t]);
      }
    }
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    s.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  for (sqlite3_stmt* insert : inserts) sqlite3_finalize(insert);
}

void BM_load_state_sqlite(benchmark::State& s) {
  big_state& b = state_under_test();
  for (auto _ : s) {
    s.PauseTiming();
    auto loaded = std::make_unique<zelcapi::state>(b.plugins, nullptr);
    s.ResumeTiming();
    loaded->set_and_update_from_state_db(b.db.get());
    s.PauseTiming();
    loaded.reset();
    s.ResumeTiming();
  }
}

// The saved file opened read-only with a prepared "SELECT id, record" per table, in id order.
struct saved_selects {
  saved_selects() {
    saved_rows();
    sqlite3_open_v2((scratch() / "state.db").string().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    for (const char* table : tables) {
      sqlite3_stmt* select = nullptr;
      sqlite3_prepare_v2(db,
                         (std::string("SELECT id, record FROM ") + table + " ORDER BY id").c_str(),
                         -1, &select, nullptr);
      selects.push_back(select);
    }
  }
  ~saved_selects() {
    for (sqlite3_stmt* select : selects) sqlite3_finalize(select);
    sqlite3_close(db);
  }
  sqlite3* db = nullptr;
  std::vector<sqlite3_stmt*> selects;
};

// Bare row stepping: what reading the file costs before anything is built from it.
void BM_load_plain_selects(benchmark::State& s) {
  const saved_selects file;
  const std::vector<sqlite3_stmt*>& selects = file.selects;
  for (auto _ : s) {
    std::size_t bytes = 0;
    for (sqlite3_stmt* select : selects) {
      while (sqlite3_step(select) == SQLITE_ROW) {
        benchmark::DoNotOptimize(sqlite3_column_text(select, 0));
        benchmark::DoNotOptimize(sqlite3_column_text(select, 1));
        bytes += static_cast<std::size_t>(sqlite3_column_bytes(select, 1));
      }
      sqlite3_reset(select);
    }
    benchmark::DoNotOptimize(bytes);
  }
}

// What a user of the file would write to get the records back: the same select, and each
// record parsed into a document by nlohmann::json, held in maps by id per table as a state
// holds its records.
void BM_load_selects_nlohmann(benchmark::State& s) {
  const saved_selects file;
  using holder = std::vector<std::map<std::string, nlohmann::json>>;
  for (auto _ : s) {
    holder held(file.selects.size());
    for (std::size_t t = 0; t < file.selects.size(); ++t) {
      sqlite3_stmt* select = file.selects[t];
      while (sqlite3_step(select) == SQLITE_ROW) {
        const auto* id = reinterpret_cast<const char*>(sqlite3_column_text(select, 0));
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(select, 1));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(select, 1));
        held[t].emplace_hint(held[t].end(), id, nlohmann::json::parse(text, text + size));
      }
      sqlite3_reset(select);
    }
    benchmark::DoNotOptimize(held);
    s.PauseTiming();
    held.clear();
    s.ResumeTiming();
  }
}

void BM_snapshot_state(benchmark::State& s) {
  big_state& b = state_under_test();
  for (auto _ : s) {
    s.PauseTiming();
    auto copy = std::make_unique<zelcapi::state>(b.plugins, nullptr);
    s.ResumeTiming();
    properties snapshot(false);
    b.st->get_state(snapshot);
    copy->set_state(snapshot);
    s.PauseTiming();
    copy.reset();
    snapshot = properties(false);
    s.ResumeTiming();
  }
}

nlohmann::json to_json(const zelcore::property& p) {
  switch (p.kind()) {
    case zelcore::property::kind_int: return static_cast<const zelcore::property_int&>(p).value();
    case zelcore::property::kind_bool: return static_cast<const zelcore::property_bool&>(p).value();
    case zelcore::property::kind_string:
      return static_cast<const zelcore::property_string&>(p).value();
    case zelcore::property::kind_list: {
      nlohmann::json out = nlohmann::json::array();
      for (const auto& e : static_cast<const zelcore::property_list&>(p).value())
        out.push_back(to_json(*e));
      return out;
    }
    default: {
      nlohmann::json out = nlohmann::json::object();
      for (const auto& [key, child] : static_cast<const properties&>(p))
        if (child) out[key] = to_json(*child);
      return out;
    }
  }
}

// The peer holds the same records as nlohmann::json in maps by id, per kind, as a state does:
// the snapshot is built into one json tree and read back into maps of another holder.
void BM_snapshot_nlohmann(benchmark::State& s) {
  using holder = std::map<std::string, std::map<std::string, nlohmann::json>>;
  static const holder held = [] {
    holder h;
    properties snapshot(false);
    state_under_test().st->get_state(snapshot);
    for (const auto& [kind, records] : snapshot)
      if (records->kind() == zelcore::property::kind_properties)
        for (const auto& [id, record] : static_cast<const properties&>(*records))
          h[kind][id] = to_json(*record);
    return h;
  }();
  for (auto _ : s) {
    nlohmann::json snapshot = nlohmann::json::object();
    for (const auto& [kind, records] : held) {
      nlohmann::json& out = snapshot[kind];
      for (const auto& [id, record] : records) out[id] = record;
    }
    holder copy;
    for (const auto& [kind, records] : snapshot.items())
      for (const auto& [id, record] : records.items()) copy[kind][id] = record;
    benchmark::DoNotOptimize(copy);
    s.PauseTiming();
    copy.clear();
    snapshot = nullptr;
    s.ResumeTiming();
  }
}

BENCHMARK(BM_save_state_sqlite)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);
BENCHMARK(BM_save_unchanged_sqlite)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);
BENCHMARK(BM_save_one_percent_changed_sqlite)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(2);
BENCHMARK(BM_save_plain_inserts)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);
BENCHMARK(BM_load_state_sqlite)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_load_plain_selects)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_load_selects_nlohmann)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_snapshot_state)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_snapshot_nlohmann)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  state_under_test();
  saved_rows();
  zelbench::ratio_reporter reporter(zelbench::ratio_reporter::real_time);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  reporter.print_targets({
      {"save_state_to_db vs prepared inserts", "BM_save_state_sqlite", "BM_save_plain_inserts", 0.8,
       true},
      {"set_and_update_from_state_db vs selects+nlohmann::json::parse", "BM_load_state_sqlite",
       "BM_load_selects_nlohmann", 1.0, false},
      {"get_state+set_state vs nlohmann::json", "BM_snapshot_state", "BM_snapshot_nlohmann", 1.5,
       false},
  });
  reporter.print_share("save of 1% changed vs full save (SQLite)",
                       "BM_save_one_percent_changed_sqlite", "BM_save_state_sqlite", 0.10);
  reporter.print_share("save of nothing changed vs save of 1% changed (SQLite)",
                       "BM_save_unchanged_sqlite", "BM_save_one_percent_changed_sqlite");
  reporter.print_share("save of nothing changed vs full save (SQLite)", "BM_save_unchanged_sqlite",
                       "BM_save_state_sqlite");
  reporter.print_info("set_and_update_from_state_db vs bare prepared selects",
                      "BM_load_state_sqlite", "BM_load_plain_selects");
  const zelcapi::save_counts last = state_under_test().db->last_save_counts();
  std::printf("store's entries of what it committed: %.1f bytes a record\n",
              static_cast<double>(state_under_test().db->digest_memory_bytes()) /
                  static_cast<double>(last.written + last.unchanged));
  std::printf("state of %d 20-field job records: %.1f bytes/field in memory\n",
              zelbench::snapshot_records, state_under_test().job_bytes_per_field);
  benchmark::Shutdown();
  return 0;
}
