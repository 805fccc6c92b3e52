// Reading job descriptions and task parameters, with a text naming the field for every refusal.
#include "job_params.h"

#include <functional>
#include <limits>
#include <map>

#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelsim {

namespace {

using zelcore::properties;
using zelcore::property;

constexpr std::int64_t max_i64 = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t min_i64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t day_ms = 86400000;

[[noreturn]] void refuse(const std::string& prefix, const std::string& text) {
  zelbase::es::arg::raise("code\\tools\\zelsim\\src\\job_params", __LINE__, prefix + text);
}

// The fields of one tree, read by name and kind; `prefix` begins every refusal.
class field_reader {
 public:
  field_reader(const properties& tree, std::string prefix)
      : tree_(tree), prefix_(std::move(prefix)) {}

  const property* find(const std::string& key, property::property_kind kind) const {
    const zelcore::property_ptr value = tree_.get_property(key);
    if (!value) return nullptr;
    if (value->kind() != kind) {
      refuse(prefix_, "'" + key + "' is a " + zelcore::property_kind_c_str(value->kind()) +
                          ", not a " + zelcore::property_kind_c_str(kind));
    }
    return value.get();
  }
  std::int64_t integer(const std::string& key, std::int64_t def, std::int64_t low,
                       std::int64_t high) const {
    const property* p = find(key, property::kind_int);
    if (p == nullptr) return def;
    const std::int64_t value = static_cast<const zelcore::property_int&>(*p).value();
    if (value < low || value > high) {
      refuse(prefix_,
             zelbase::string_with_format("'%s' is %lld, outside %lld to %lld", key.c_str(),
                                         static_cast<long long>(value), static_cast<long long>(low),
                                         static_cast<long long>(high)));
    }
    return value;
  }
  std::string text(const std::string& key, const std::string& def) const {
    const property* p = find(key, property::kind_string);
    return p == nullptr ? def : static_cast<const zelcore::property_string&>(*p).value();
  }
  std::vector<std::string> strings(const std::string& key) const {
    std::vector<std::string> out;
    const property* p = find(key, property::kind_list);
    if (p == nullptr) return out;
    for (const zelcore::property_ptr& e : static_cast<const zelcore::property_list&>(*p).value()) {
      if (e->kind() != property::kind_string) {
        refuse(prefix_, "'" + key + "' holds a " + zelcore::property_kind_c_str(e->kind()) +
                            ", not a string");
      }
      out.push_back(static_cast<const zelcore::property_string&>(*e).value());
    }
    return out;
  }
  properties tree(const std::string& key) const {
    const property* p = find(key, property::kind_properties);
    return p == nullptr ? properties() : static_cast<const properties&>(*p);
  }
  // A tree of strings, such as an environment.
  properties string_tree(const std::string& key) const {
    properties out = tree(key);
    for (const auto& [name, value] : out) {
      if (value && value->kind() != property::kind_string) {
        refuse(prefix_, "'" + key + "' entry '" + name + "' is a " +
                            zelcore::property_kind_c_str(value->kind()) + ", not a string");
      }
    }
    return out;
  }
  // Refuses keys that are not among `known`.
  void only(std::initializer_list<const char*> known) const {
    for (const auto& [key, value] : tree_) {
      if (!value) continue;
      bool found = false;
      for (const char* k : known) found = found || key == k;
      if (!found) refuse(prefix_, "unknown key '" + key + "'");
    }
  }

 private:
  const properties& tree_;
  std::string prefix_;
};

// The fields that a job and a task's parameters share.
void read_run(const field_reader& r, job_params& params, std::int64_t default_run_ms) {
  params.command = r.text("command", params.command);
  params.cores = r.integer("cores", 1, 1, 1024);
  params.memory_mb = r.integer("memory-mb", 512, 0, std::int64_t{1} << 24);
  params.queue = r.text("queue", "default");
  params.tags = r.strings("tags");
  params.env = r.string_tree("env");
  params.run_ms = r.integer("run-ms", default_run_ms, 0, day_ms);
  params.fail_attempts = r.integer("fail-attempts", 0, 0, 1000000);
  params.exit_code = r.integer("exit-code", 1, 1, 255);
}

}  // namespace

job_params read_job(const properties& job, std::int64_t default_run_ms) {
  const field_reader r(job, "");
  r.only({"name", "command", "cores", "memory-mb", "queue", "priority", "tags", "env",
          "max-attempts", "tasks", "run-ms", "fail-attempts", "exit-code"});
  job_params params;
  if (!job.is_present("command")) refuse("", "'command' is missing");
  read_run(r, params, default_run_ms);
  if (params.command.empty()) refuse("", "'command' is empty");
  params.name = r.text("name", "");
  params.priority = r.integer("priority", 0, min_i64, max_i64);
  params.max_attempts = r.integer("max-attempts", 1, 1, 1000);
  params.tasks = r.integer("tasks", 1, 1, 1000);
  return params;
}

job_params read_task_parameters(const properties& parameters, std::int64_t default_run_ms) {
  const field_reader r(parameters, "parameter ");
  job_params params;
  read_run(r, params, default_run_ms);
  params.out_values = r.tree("out-values");
  return params;
}

}  // namespace zelsim
