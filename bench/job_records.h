// Benchmark support: the job records of a large cluster, as the master sends them.
#pragma once

#include <string>

#include "zelcore/properties.h"

namespace zelbench {

// How many records a snapshot of a large cluster holds.
constexpr int snapshot_records = 100000;

// A job record as the master sends it: 20 fields of the usual kinds.
inline zelcore::properties job_record(int n) {
  zelcore::properties p(false);
  const std::string id = "job-" + std::to_string(1000000 + n);
  p.set_string_value("id", id);
  p.set_string_value("submission-id", "sub-" + std::to_string(n / 10));
  p.set_string_value("source-id", "src-" + std::to_string(n % 7));
  p.set_string_value("name", "render frame " + std::to_string(n));
  p.set_string_value("user", "operator");
  p.set_string_value("node-id", "node-" + std::to_string(n % 64));
  p.set_string_value("slot-id", "slot-" + std::to_string(n % 512));
  p.set_string_value("command", "/opt/render/bin/render --frame " + std::to_string(n));
  p.set_int_value("status", n % 6);
  p.set_int_value("priority", 500 + n % 100);
  p.set_int_value("submit-time", 1763700000 + n);
  p.set_int_value("start-time", 1763700100 + n);
  p.set_int_value("end-time", 0);
  p.set_int_value("exit-code", 0);
  p.set_int_value("attempts", 1);
  p.set_int_value("max-attempts", 3);
  p.set_int_value("memory", 4294967296LL + n);
  p.set_bool_value("killed", false);
  p.set_bool_value("restartable", true);
  p.set_properties_value("progress",
                         zelcore::properties{{"done", zelcore::make_int(n % 100)},
                                             {"total", zelcore::make_int(100)},
                                             {"phase", zelcore::make_string("rendering")}});
  return p;
}

}  // namespace zelbench
