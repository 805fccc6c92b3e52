// Property tree benchmarks, side by side on the same data with nlohmann::json (what a user
// would otherwise hold such records in) and msgpack-cxx (the speed limit of the bytes).
// Prints the ratios that the tree must reach after the timings.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <msgpack.hpp>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "job_records.h"
#include "ratio_reporter.h"
#include "zelcore/properties.h"
#include "zelsim/cluster.h"

namespace {

using zelbench::job_record;
using zelbench::ratio_reporter;
using zelbench::snapshot_records;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;

properties snapshot() { return zelbench::jobs_by_id(snapshot_records); }

const std::string& record_bytes() {
  static const std::string bytes = zelcore::encode_property(job_record(42));
  return bytes;
}

const std::string& snapshot_bytes() {
  static const std::string bytes = zelcore::encode_property(snapshot());
  return bytes;
}

// Two different 3-leaf updates, so that every merge really replaces values.
const properties& update_tree(int which) {
  static const properties updates[2] = {
      properties{{"status", make_int(3)},
                 {"end-time", make_int(1763709999)},
                 {"progress", zelcore::property_ptr(new properties{{"done", make_int(100)}})}},
      properties{{"status", make_int(4)},
                 {"end-time", make_int(1763711111)},
                 {"progress", zelcore::property_ptr(new properties{{"done", make_int(50)}})}}};
  return updates[which];
}

void decode_tree(benchmark::State& s, const std::string& bytes) {
  for (auto _ : s) {
    properties p = zelcore::decode_properties(bytes.data(), bytes.size());
    benchmark::DoNotOptimize(p);
  }
  s.SetBytesProcessed(static_cast<std::int64_t>(s.iterations() * bytes.size()));
}
void decode_nlohmann(benchmark::State& s, const std::string& bytes) {
  for (auto _ : s) {
    nlohmann::json j = nlohmann::json::from_msgpack(bytes);
    benchmark::DoNotOptimize(j);
  }
  s.SetBytesProcessed(static_cast<std::int64_t>(s.iterations() * bytes.size()));
}
void decode_msgpack(benchmark::State& s, const std::string& bytes) {
  for (auto _ : s) {
    msgpack::object_handle h = msgpack::unpack(bytes.data(), bytes.size());
    benchmark::DoNotOptimize(h.get());
  }
  s.SetBytesProcessed(static_cast<std::int64_t>(s.iterations() * bytes.size()));
}

void encode_tree(benchmark::State& s, const std::string& bytes) {
  const properties p = zelcore::decode_properties(bytes.data(), bytes.size());
  zelbase::encoder_network encoder;
  for (auto _ : s) {
    encoder.clear();
    p.encode(encoder);
    benchmark::DoNotOptimize(encoder.data());
  }
  s.SetBytesProcessed(static_cast<std::int64_t>(s.iterations() * bytes.size()));
}
void encode_nlohmann(benchmark::State& s, const std::string& bytes) {
  const nlohmann::json j = nlohmann::json::from_msgpack(bytes);
  std::vector<std::uint8_t> out;
  for (auto _ : s) {
    out.clear();
    nlohmann::json::to_msgpack(j, out);
    benchmark::DoNotOptimize(out.data());
  }
  s.SetBytesProcessed(static_cast<std::int64_t>(s.iterations() * bytes.size()));
}
void encode_msgpack(benchmark::State& s, const std::string& bytes) {
  const msgpack::object_handle h = msgpack::unpack(bytes.data(), bytes.size());
  msgpack::sbuffer out;
  for (auto _ : s) {
    out.clear();
    msgpack::pack(out, h.get());
    benchmark::DoNotOptimize(out.data());
  }
  s.SetBytesProcessed(static_cast<std::int64_t>(s.iterations() * bytes.size()));
}

void BM_decode_record_zelcore(benchmark::State& s) { decode_tree(s, record_bytes()); }
void BM_decode_record_nlohmann(benchmark::State& s) { decode_nlohmann(s, record_bytes()); }
void BM_decode_record_msgpack(benchmark::State& s) { decode_msgpack(s, record_bytes()); }
void BM_decode_snapshot_zelcore(benchmark::State& s) { decode_tree(s, snapshot_bytes()); }
void BM_decode_snapshot_nlohmann(benchmark::State& s) { decode_nlohmann(s, snapshot_bytes()); }
void BM_decode_snapshot_msgpack(benchmark::State& s) { decode_msgpack(s, snapshot_bytes()); }
void BM_encode_record_zelcore(benchmark::State& s) { encode_tree(s, record_bytes()); }
void BM_encode_record_nlohmann(benchmark::State& s) { encode_nlohmann(s, record_bytes()); }
void BM_encode_record_msgpack(benchmark::State& s) { encode_msgpack(s, record_bytes()); }
void BM_encode_snapshot_zelcore(benchmark::State& s) { encode_tree(s, snapshot_bytes()); }
void BM_encode_snapshot_nlohmann(benchmark::State& s) { encode_nlohmann(s, snapshot_bytes()); }
void BM_encode_snapshot_msgpack(benchmark::State& s) { encode_msgpack(s, snapshot_bytes()); }

// The merge of a notification's 3-leaf update into a stored record, in place.
void BM_merge_zelcore(benchmark::State& s) {
  properties record = job_record(42);
  int which = 0;
  for (auto _ : s) {
    record.merge_leaves(update_tree(which ^= 1));
    benchmark::DoNotOptimize(record);
  }
}
void BM_merge_nlohmann(benchmark::State& s) {
  nlohmann::json record = nlohmann::json::from_msgpack(record_bytes());
  const nlohmann::json updates[2] = {
      nlohmann::json::from_msgpack(zelcore::encode_property(update_tree(0))),
      nlohmann::json::from_msgpack(zelcore::encode_property(update_tree(1)))};
  int which = 0;
  for (auto _ : s) {
    record.merge_patch(updates[which ^= 1]);
    benchmark::DoNotOptimize(record);
  }
}

void BM_copy_record_zelcore(benchmark::State& s) {
  const properties record = job_record(42);
  for (auto _ : s) {
    properties copy = record;
    benchmark::DoNotOptimize(copy);
  }
}
void BM_copy_record_nlohmann(benchmark::State& s) {
  const nlohmann::json record = nlohmann::json::from_msgpack(record_bytes());
  for (auto _ : s) {
    nlohmann::json copy = record;
    benchmark::DoNotOptimize(copy);
  }
}

// A copy followed by one leaf change, the work of a record that is copied to be updated: the
// change detaches the copy (copy-on-write), as nlohmann's copy has already paid for.
void BM_copy_change_record_zelcore(benchmark::State& s) {
  const properties record = job_record(42);
  std::int64_t status = 0;
  for (auto _ : s) {
    properties copy = record;
    copy.set_int_value("status", ++status & 7);
    benchmark::DoNotOptimize(copy);
  }
}
void BM_copy_change_record_nlohmann(benchmark::State& s) {
  const nlohmann::json record = nlohmann::json::from_msgpack(record_bytes());
  std::int64_t status = 0;
  for (auto _ : s) {
    nlohmann::json copy = record;
    copy["status"] = ++status & 7;
    benchmark::DoNotOptimize(copy);
  }
}

BENCHMARK(BM_decode_record_zelcore);
BENCHMARK(BM_decode_record_nlohmann);
BENCHMARK(BM_decode_record_msgpack);
BENCHMARK(BM_decode_snapshot_zelcore)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_decode_snapshot_nlohmann)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_decode_snapshot_msgpack)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_encode_record_zelcore);
BENCHMARK(BM_encode_record_nlohmann);
BENCHMARK(BM_encode_record_msgpack);
BENCHMARK(BM_encode_snapshot_zelcore)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_encode_snapshot_nlohmann)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_encode_snapshot_msgpack)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_merge_zelcore);
BENCHMARK(BM_merge_nlohmann);
BENCHMARK(BM_copy_record_zelcore);
BENCHMARK(BM_copy_record_nlohmann);
BENCHMARK(BM_copy_change_record_zelcore);
BENCHMARK(BM_copy_change_record_nlohmann);

// Heap in use: the allocator's small blocks and the large ones it maps on their own.
std::size_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// Heap bytes held while `hold` keeps what `build` returns, on a thread of its own, whose block
// cache starts empty: every block then comes from the allocator and is counted.
template <class Build>
std::size_t heap_held(Build build) {
  std::size_t held = 0;
  std::thread([&] {
    const std::size_t before = heap_in_use();
    const auto kept = build();
    held = heap_in_use() - before;
  }).join();
  return held;
}

// Memory per stored field of the same 100,000 records held four ways: a store of records
// decoded one by one (as notifications fill it), the snapshot decoded at once (the arena),
// msgpack::unpack's zone holding the snapshot, and nlohmann::json holding it. Prints the
// encoded size beside them and whether the tree meets its target (at most 40 bytes per field
// and below the other two stores).
void print_memory() {
  std::vector<std::string> encoded;
  encoded.reserve(snapshot_records);
  std::size_t encoded_total = 0;
  for (int n = 0; n < snapshot_records; ++n) {
    encoded.push_back(zelcore::encode_property(job_record(n)));
    encoded_total += encoded.back().size();
  }
  const std::string& all = snapshot_bytes();
  const double fields = static_cast<double>(snapshot_records) * 20;
  const auto per_field = [fields](std::size_t bytes) {
    return static_cast<double>(bytes) / fields;
  };

  const double store = per_field(heap_held([&] {
    std::map<std::string, properties> records;
    for (const std::string& e : encoded) {
      properties record = zelcore::decode_properties(e.data(), e.size());
      records.emplace(record.get_string_value("id"), std::move(record));
    }
    return records;
  }));
  const double snapshot =
      per_field(heap_held([&] { return zelcore::decode_properties(all.data(), all.size()); }));
  const double zone = per_field(heap_held([&] { return msgpack::unpack(all.data(), all.size()); }));
  const double json = per_field(heap_held([&] { return nlohmann::json::from_msgpack(all); }));

  std::printf(
      "store of %d 20-field records: %.1f bytes/field in memory, %.1f bytes/field "
      "as MessagePack (one record: %zu bytes)\n",
      snapshot_records, store, per_field(encoded_total), record_bytes().size());
  std::printf("snapshot of the same records decoded at once: %.1f bytes/field in memory\n",
              snapshot);
  std::printf("msgpack::unpack's zone holding the snapshot: %.1f bytes/field in memory\n", zone);
  std::printf("nlohmann::json holding the snapshot: %.1f bytes/field in memory\n", json);
  // A state is filled from a snapshot, decoded at once, whose equal strings share one property;
  // records decoded one by one (notifications) are each a decode of their own.
  std::printf("%-48s %6.1f B   (target below %.1f and %.1f)   %s\n",
              "snapshot memory per field vs msgpack zone, nlohmann", snapshot, zone, json,
              snapshot < zone && snapshot < json ? "met" : "NOT MET");
  // The aims of the representation: a snapshot decoded at once at most 50 bytes a field, a
  // record decoded on its own (nothing to share with other decodes) at most 60.
  const auto aim = [](const char* what, double bytes, double target) {
    std::printf("%-48s %6.1f B   (target <= %.1f)   %s\n", what, bytes, target,
                bytes <= target ? "met" : "NOT MET");
  };
  aim("snapshot decoded at once, memory per field", snapshot, 50);
  aim("records decoded one by one, memory per field", store, 60);
}

// Leaves of a tree (every value that is not a map), the unit of the per-field figures.
std::size_t leaves_of(const zelcore::property& p) {
  if (p.kind() != zelcore::property::kind_properties) return 1;
  std::size_t n = 0;
  for (const auto& [key, child] : static_cast<const properties&>(p))
    if (child) n += leaves_of(*child);
  return n;
}

// The snapshot of a simulated cluster of 100,000 jobs (and their tasks), decoded at once.
void print_simulated_memory() {
  zelsim::options o;
  o.log = false;
  o.jobs = 100000;
  o.rate = 0;
  o.warm_up = 400000;
  zelsim::cluster sim(o);
  sim.start();
  const std::string all = zelcore::encode_property(sim.master_snapshot());
  std::size_t fields = 0;
  std::size_t jobs = 0;
  const std::size_t held = heap_held([&] {
    properties decoded = zelcore::decode_properties(all.data(), all.size());
    fields = leaves_of(decoded);
    jobs = decoded.get_properties_value("jobs").size();
    return decoded;
  });
  const double zone =
      static_cast<double>(heap_held([&] { return msgpack::unpack(all.data(), all.size()); }));
  std::printf(
      "zelsim snapshot (%zu jobs, %zu fields, %.1f MB): %.1f bytes/field decoded, "
      "msgpack::unpack's zone %.1f\n",
      jobs, fields, static_cast<double>(all.size()) / 1e6, static_cast<double>(held) / fields,
      zone / fields);
}

}  // namespace

int main(int argc, char** argv) {
  // A plain run repeats each benchmark five times and interleaves the repetitions.
  zelbench::initialize_repeated(&argc, argv, 5);
  ratio_reporter reporter(ratio_reporter::cpu_time);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  reporter.print_targets({
      {"decode record vs nlohmann::from_msgpack", "BM_decode_record_zelcore",
       "BM_decode_record_nlohmann", 5, false},
      {"decode record vs msgpack::unpack", "BM_decode_record_zelcore", "BM_decode_record_msgpack",
       0.25, true},
      {"decode snapshot vs nlohmann::from_msgpack", "BM_decode_snapshot_zelcore",
       "BM_decode_snapshot_nlohmann", 5, false},
      {"decode snapshot vs msgpack::unpack", "BM_decode_snapshot_zelcore",
       "BM_decode_snapshot_msgpack", 0.4, true},
      {"encode record vs nlohmann::to_msgpack", "BM_encode_record_zelcore",
       "BM_encode_record_nlohmann", 3, false},
      {"encode record vs msgpack::pack", "BM_encode_record_zelcore", "BM_encode_record_msgpack",
       0.5, true},
      {"encode snapshot vs nlohmann::to_msgpack", "BM_encode_snapshot_zelcore",
       "BM_encode_snapshot_nlohmann", 3, false},
      {"encode snapshot vs msgpack::pack", "BM_encode_snapshot_zelcore",
       "BM_encode_snapshot_msgpack", 0.5, true},
      {"3-leaf merge vs nlohmann::merge_patch", "BM_merge_zelcore", "BM_merge_nlohmann", 2, false},
      {"copy + change vs nlohmann::json copy + change", "BM_copy_change_record_zelcore",
       "BM_copy_change_record_nlohmann", 5, false},
  });
  reporter.print_info("bare copy of a record vs nlohmann::json copy", "BM_copy_record_zelcore",
                      "BM_copy_record_nlohmann");
  print_memory();
  print_simulated_memory();
  benchmark::Shutdown();
  return 0;
}
