// Reading a description's fields by name and kind, with an error at its path for every refusal;
// names, suggestions for misspellings, run parameters and in-values given as text.
#include "description_checks.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <utility>

namespace zelcapi {
namespace description_detail {

namespace {

constexpr std::int64_t max_cores = 1024;
constexpr std::int64_t max_memory_mb = std::int64_t{1} << 24;
constexpr std::int64_t max_run_ms = 86400000;
constexpr std::int64_t max_fail_attempts = 1000000;
constexpr std::size_t max_quoted_text = 40;

// Lower case, '_' as '-': "Memory_MB" and "memory-mb" are the same word for a suggestion.
std::string normalized(const std::string& word) {
  std::string out = word;
  for (char& c : out) {
    c = c == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return out;
}

std::size_t edit_distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// Words that other systems and habits use for the keys of this format, each with the keys it may
// mean, in order of preference: the first that the map at hand has is suggested.
const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>>& synonyms() {
  static const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> table{
      {{"cpus", "cpu", "ncpus", "ncores", "threads", "slots", "cpu-count"}, {"cores"}},
      {{"memory", "mem", "ram", "memory-mib", "mem-mb"}, {"memory-mb"}},
      {{"depends", "depends-on", "dependencies", "deps", "needs", "requires", "prerequisites"},
       {"after"}},
      {{"retries", "attempts", "retry", "max-retries", "tries"}, {"max-attempts"}},
      {{"cmd", "run", "script", "exec", "executable", "command-line", "commandline"}, {"command"}},
      {{"id", "title"}, {"name"}},
      {{"parameters", "arguments", "args", "vars", "variables", "values", "in-values"},
       {"inputs", "params"}},
      {{"outs", "out-values", "results", "artifacts", "produces"}, {"outputs"}},
      {{"environment", "environ", "envs", "env-vars"}, {"env"}},
      {{"labels"}, {"tags", "meta"}},
      {{"partition", "pool"}, {"queue"}},
      {{"duration", "runtime", "run-time", "time", "sleep", "runtime-ms"}, {"run-ms"}},
      {{"meta-data", "metadata", "annotations"}, {"meta"}},
      {{"configuration", "conf", "settings"}, {"config"}},
      {{"steps", "nodes"}, {"tasks"}},
      {{"type"}, {"kind"}},
      {{"is-template", "templated"}, {"template"}},
      {{"prio", "nice"}, {"priority"}},
      {{"default-value", "value"}, {"default"}},
      {{"fail", "failures", "fail-count", "failing-attempts"}, {"fail-attempts"}},
      {{"exit", "exitcode", "rc", "exit-status", "return-code", "status"}, {"exit-code"}},
      {{"task-count", "ntasks", "parts"}, {"tasks"}},
  };
  return table;
}

std::string quoted_list(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& w : words) out += (out.empty() ? "" : ", ") + w;
  return out;
}

}  // namespace

const char* kind_text(property::property_kind kind) {
  switch (kind) {
    case property::kind_int: return "an int";
    case property::kind_bool: return "a bool";
    case property::kind_string: return "a string";
    case property::kind_list: return "a list";
    case property::kind_properties: return "a map";
  }
  return "a value";
}

std::string describe_value(const property& value) {
  std::string out = kind_text(value.kind());
  switch (value.kind()) {
    case property::kind_int:
      return out + " (" + std::to_string(static_cast<const zelcore::property_int&>(value).value()) +
             ")";
    case property::kind_bool:
      return out +
             (static_cast<const zelcore::property_bool&>(value).value() ? " (true)" : " (false)");
    case property::kind_string: {
      const std::string& text = static_cast<const zelcore::property_string&>(value).value();
      const bool printable = std::all_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) >= 0x20 && c != 0x7f;
      });
      return text.size() <= max_quoted_text && printable ? out + " ('" + text + "')" : out;
    }
    default: return out;
  }
}

std::string child_path(const std::string& path, const std::string& key) {
  return path + "/" + zelcore::property_reference_escape(key);
}

std::string child_path(const std::string& path, std::size_t index) {
  return path + "/" + std::to_string(index);
}

bool is_name(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
  });
}

std::string suggestion(const std::string& word, const std::vector<std::string>& candidates) {
  const std::string w = normalized(word);
  for (const std::string& c : candidates) {
    if (normalized(c) == w && c != word) return c;
  }
  for (const auto& [words, meant] : synonyms()) {
    if (std::find(words.begin(), words.end(), w) == words.end()) continue;
    for (const std::string& m : meant) {
      if (std::find(candidates.begin(), candidates.end(), m) != candidates.end()) return m;
    }
  }
  // A near spelling: at most one edit in a short word, two in a longer one, three in a long one.
  const std::size_t allowed = w.size() <= 4 ? 1 : w.size() <= 8 ? 2 : 3;
  std::string best;
  std::size_t best_distance = allowed + 1;
  for (const std::string& c : candidates) {
    const std::size_t d = edit_distance(w, normalized(c));
    if (d < best_distance && c != word) {
      best = c;
      best_distance = d;
    }
  }
  return best;
}

std::string did_you_mean(const std::string& word, const std::vector<std::string>& candidates) {
  const std::string s = suggestion(word, candidates);
  return s.empty() ? "" : " (did you mean '" + s + "'?)";
}

void error_list::add(const std::string& path, description_issue issue, std::string message,
                     int setting) {
  errors_.push_back({path, std::move(message), issue, setting});
}

fields::fields(error_list& errors, const properties& tree, std::string path, std::string what,
               std::vector<std::string> known)
    : errors_(errors), tree_(tree), path_(std::move(path)) {
  for (const auto& [key, value] : tree_) {
    if (!value || std::find(known.begin(), known.end(), key) != known.end()) continue;
    const std::string hint = did_you_mean(key, known);
    errors_.add(path_of(key), description_issue::unknown_key,
                "unknown key '" + key + "'" +
                    (hint.empty() ? "; " + what + " has " + quoted_list(known) : hint));
  }
}

property_ptr fields::get(const std::string& key, property::property_kind kind,
                         bool required) const {
  property_ptr value = tree_.get_property(key);
  if (!value) {
    if (required) errors_.add(path_of(key), description_issue::missing, "'" + key + "' is missing");
    return nullptr;
  }
  if (value->kind() != kind) {
    errors_.add(path_of(key), description_issue::wrong_kind,
                std::string("expected ") + kind_text(kind) + ", got " + describe_value(*value));
    return nullptr;
  }
  return value;
}

const std::string* fields::text(const std::string& key, bool required, bool non_empty) const {
  const property_ptr value = get(key, property::kind_string, required);
  if (!value) return nullptr;
  const std::string& text = static_cast<const zelcore::property_string&>(*value).value();
  if (non_empty && text.empty()) {
    errors_.add(path_of(key), description_issue::out_of_range, "'" + key + "' is empty");
    return nullptr;
  }
  return &text;
}

bool fields::integer(const std::string& key, std::int64_t low, std::int64_t high,
                     std::int64_t& out) const {
  const property_ptr value = get(key, property::kind_int);
  if (!value) return false;
  const std::int64_t v = static_cast<const zelcore::property_int&>(*value).value();
  if (v < low || v > high) {
    errors_.add(
        path_of(key), description_issue::out_of_range,
        std::to_string(v) + " is outside " + std::to_string(low) + " to " + std::to_string(high));
    return false;
  }
  out = v;
  return true;
}

bool fields::boolean(const std::string& key, bool& out) const {
  const property_ptr value = get(key, property::kind_bool);
  if (!value) return false;
  out = static_cast<const zelcore::property_bool&>(*value).value();
  return true;
}

const properties* fields::map(const std::string& key) const {
  const property_ptr value = get(key, property::kind_properties);
  // The tree holds the child, so the pointer stays valid while the tree does.
  return value ? static_cast<const properties*>(value.get()) : nullptr;
}

const property_list* fields::list(const std::string& key) const {
  const property_ptr value = get(key, property::kind_list);
  return value ? static_cast<const property_list*>(value.get()) : nullptr;
}

bool fields::strings(const std::string& key, std::vector<std::string>& out) const {
  const property_list* list = this->list(key);
  if (list == nullptr) return false;
  bool all = true;
  std::size_t index = 0;
  for (const property_ptr& e : list->value()) {
    if (e->kind() == property::kind_string) {
      out.push_back(static_cast<const zelcore::property_string&>(*e).value());
    } else {
      errors_.add(child_path(path_of(key), index), description_issue::wrong_kind,
                  "expected a string, got " + describe_value(*e));
      all = false;
    }
    ++index;
  }
  return all;
}

bool fields::copy(const std::string& key, property::property_kind kind, properties& out,
                  const std::string& out_key, std::int64_t low, std::int64_t high) const {
  if (kind == property::kind_int) {
    std::int64_t v = 0;
    if (!integer(key, low, high, v)) return false;
    out[out_key] = tree_.get_property(key);
    return true;
  }
  const property_ptr value = get(key, kind);
  if (!value) return false;
  out[out_key] = value;
  return true;
}

const std::vector<std::string> run_parameter_keys{"command", "cores",         "memory-mb",
                                                  "queue",   "tags",          "env",
                                                  "run-ms",  "fail-attempts", "exit-code"};

void copy_run_parameters(const fields& f, properties& out) {
  if (f.text("command", true, true) != nullptr) out["command"] = f.tree().get_property("command");
  f.copy("cores", property::kind_int, out, "cores", 1, max_cores);
  f.copy("memory-mb", property::kind_int, out, "memory-mb", 0, max_memory_mb);
  f.copy("queue", property::kind_string, out, "queue");
  std::vector<std::string> tags;
  if (f.strings("tags", tags)) out["tags"] = f.tree().get_property("tags");
  if (const properties* env = f.map("env")) {
    bool all = true;
    for (const auto& [name, value] : *env) {
      if (!value || value->kind() == property::kind_string) continue;
      f.errors().add(child_path(f.path_of("env"), name), description_issue::wrong_kind,
                     "expected a string, got " + describe_value(*value));
      all = false;
    }
    if (all) out["env"] = f.tree().get_property("env");
  }
  f.copy("run-ms", property::kind_int, out, "run-ms", 0, max_run_ms);
  f.copy("fail-attempts", property::kind_int, out, "fail-attempts", 0, max_fail_attempts);
  f.copy("exit-code", property::kind_int, out, "exit-code", 1, 255);
}

property::property_kind kind_of(const std::string& accepts) {
  static const std::vector<std::pair<const char*, property::property_kind>> kinds{
      {"int", property::kind_int},
      {"bool", property::kind_bool},
      {"list", property::kind_list},
      {"properties", property::kind_properties}};
  for (const auto& [name, kind] : kinds) {
    if (accepts == name) return kind;
  }
  return property::kind_string;
}

property_ptr value_for_kind(const std::string& accepts, const property_ptr& value,
                            description_issue& issue, std::string& problem) {
  if (accepts == "any") return value;
  const property::property_kind wanted = kind_of(accepts);
  if (value->kind() == wanted) return value;
  issue = description_issue::wrong_kind;
  problem = std::string("expected ") + kind_text(wanted) + ", got " + describe_value(*value);
  if (value->kind() != property::kind_string) return nullptr;
  // Text read as the in-value's kind.
  const std::string& text = static_cast<const zelcore::property_string&>(*value).value();
  issue = description_issue::bad_value;
  switch (wanted) {
    case property::kind_int: {
      std::int64_t v = 0;
      if (read_description_int(text, v)) return zelcore::make_int(v);
      problem = "'" + text + "' is not an int";
      return nullptr;
    }
    case property::kind_bool:
      if (text == "true" || text == "false") return zelcore::make_bool(text == "true");
      problem = "'" + text + "' is not a bool (true or false)";
      return nullptr;
    case property::kind_list: {
      std::vector<std::string> parts;
      for (std::size_t from = 0; !text.empty() && from <= text.size();) {
        const std::size_t comma = std::min(text.find(',', from), text.size());
        parts.push_back(text.substr(from, comma - from));
        from = comma + 1;
      }
      return zelcore::make_string_list(parts);
    }
    default: problem = "a map cannot be given as text"; return nullptr;
  }
}

}  // namespace description_detail

bool read_description_int(const std::string& text, std::int64_t& out) {
  const std::size_t digits_from = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
  if (digits_from == text.size()) return false;
  for (std::size_t i = digits_from; i < text.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno == ERANGE || end != text.c_str() + text.size()) return false;
  out = value;
  return true;
}

}  // namespace zelcapi
