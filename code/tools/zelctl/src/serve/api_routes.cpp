// The API's endpoints: summary, state (whole, kind with filters, record), a sorted and filtered
// page of a kind for the tables, history, the event stream, and the pages' files.
#include "serve/api_routes.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "json_output.h"
#include "kinds.h"
#include "replica_json.h"
#include "serve/json_pieces.h"
#include "serve/web_assets.h"

namespace zelctl::serve {
namespace {

// Fields the filters match: a record passes when each given filter equals its field.
const char* const filter_fields[] = {"state", "user", "node"};
const std::size_t max_page_rows = 1000;

response json_response(const nlohmann::json& value, unsigned status = 200) {
  response r;
  r.status = status;
  r.body = json_text(value, false);
  return r;
}

// A large answer: frozen now, written in pieces.
response pieces_response(json_plan plan) {
  response r;
  r.pieces = std::make_shared<json_pieces>(std::make_shared<const json_plan>(std::move(plan)));
  return r;
}

response records_response(frozen_records records) {
  json_plan plan;
  plan.add_records(std::move(records));
  return pieces_response(std::move(plan));
}

// Every record of a snapshot key.
frozen_records frozen_kind(const zelcapi::state& replica, const std::string& key) {
  zelcapi::state_item_type type{};
  if (item_type_of(key, type)) return freeze(replica.get_items(type));
  zelcore::properties records;
  workflow_tree(replica, key, records);
  return freeze_children(records);
}

response not_found(const std::string& what) {
  return json_response({{"error", "not found: " + what}}, 404);
}

response bad_request(const std::string& what) { return json_response({{"error", what}}, 400); }

bool passes(const zelcore::properties& record, const request& in) {
  for (const char* field : filter_fields) {
    const auto it = in.target.query.find(field);
    if (it != in.target.query.end() && record.get_string_value(field, "") != it->second) {
      return false;
    }
  }
  return true;
}

bool has_filter(const request& in) {
  for (const char* field : filter_fields) {
    if (in.target.query.count(field) != 0) return true;
  }
  return false;
}

// A whole non-negative number from a query parameter, or false.
bool number_param(const request& in, const std::string& key, std::size_t fallback,
                  std::size_t& out) {
  const std::string text = in.target.param(key);
  if (text.empty()) {
    out = fallback;
    return true;
  }
  if (text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  out = static_cast<std::size_t>(std::strtoul(text.c_str(), nullptr, 10));
  return true;
}

// Orders JSON values of one column: missing first, then numbers, then strings, then the rest
// by their text.
int rank(const nlohmann::json& v) {
  if (v.is_null()) return 0;
  if (v.is_number() || v.is_boolean()) return 1;
  if (v.is_string()) return 2;
  return 3;
}

bool value_less(const nlohmann::json& a, const nlohmann::json& b) {
  const int ra = rank(a);
  const int rb = rank(b);
  if (ra != rb) return ra < rb;
  if (ra == 3) return a.dump() < b.dump();
  return a < b;
}

response page(const web_asset& a) {
  response r;
  r.content_type = std::string(a.content_type);
  r.body = std::string(a.bytes);
  return r;
}

// The path below a prefix ("/api/state/jobs" after "/api/state" is "/jobs").
bool below(const std::string& path, const std::string& prefix, std::string& rest) {
  if (path.compare(0, prefix.size(), prefix) != 0) return false;
  rest = path.substr(prefix.size());
  return rest.empty() || rest.front() == '/';
}

}  // namespace

response api_routes::operator()(const request& in) const {
  const std::string& path = in.target.path;
  std::string rest;
  if (path == "/api/summary") return json_response(view_.summary());
  if (path == "/api/events") {
    response r;
    r.event_stream = true;
    return r;
  }
  if (below(path, "/api/state", rest)) return state(in, rest);
  if (below(path, "/api/table", rest) && rest.size() > 1) return table(in, rest.substr(1));
  if (below(path, "/api/history", rest) && rest.size() > 1) return history(in, rest.substr(1));
  if (path.compare(0, 5, "/api/") == 0 || path == "/api") return not_found(path);
  // Pages: "/" is the overview, "/jobs" the jobs' page and so on; files under /assets/.
  std::string file = path == "/" ? "/index.html" : path;
  if (file.find('.') == std::string::npos) file += ".html";
  if (const web_asset* a = find_web_asset(file)) return page(*a);
  response r = not_found(path);
  return r;
}

response api_routes::state(const request& in, const std::string& rest) const {
  if (rest.empty() || rest == "/") {
    json_plan plan;
    plan.add_state(replica_);
    return pieces_response(std::move(plan));
  }
  const std::size_t slash = rest.find('/', 1);
  const std::string kind = rest.substr(1, slash == std::string::npos ? slash : slash - 1);
  const std::string key = snapshot_key_of(kind);
  if (key.empty()) return not_found("kind '" + kind + "'");
  zelcapi::state_item_type type{};
  const bool item_kind = item_type_of(key, type);
  if (slash != std::string::npos) {
    const std::string id = rest.substr(slash + 1);
    if (item_kind) {
      if (!replica_.has_item(type, id)) return not_found(key + " record '" + id + "'");
      return json_response(to_json(replica_.get_item(type, id)));
    }
    const nlohmann::json records = kind_json(replica_, key);
    if (!records.contains(id)) return not_found(key + " record '" + id + "'");
    return json_response(records[id]);
  }
  if (!has_filter(in) || !item_kind) return records_response(frozen_kind(replica_, key));
  return records_response(freeze(replica_.get_items(type),
                                 [&in](const zelcore::properties& r) { return passes(r, in); }));
}

response api_routes::table(const request& in, const std::string& kind) const {
  zelcapi::state_item_type type{};
  if (snapshot_key_of(kind).empty() || !item_type_of(kind, type)) {
    return not_found("kind '" + kind + "'");
  }
  std::size_t offset = 0;
  std::size_t limit = 0;
  if (!number_param(in, "offset", 0, offset) || !number_param(in, "limit", 100, limit)) {
    return bad_request("offset and limit are whole numbers");
  }
  limit = std::min(limit, max_page_rows);
  const std::string order = in.target.param("order", "asc");
  if (order != "asc" && order != "desc") return bad_request("order is asc or desc");
  const std::string column = in.target.param("sort", "id");
  const std::string text = in.target.param("q");
  const auto& items = replica_.get_items(type);
  // The matching records, with the sort column's value beside them.
  struct row {
    const std::string* id;
    const zelcore::properties* record;
    nlohmann::json key;
  };
  std::vector<row> rows;
  rows.reserve(items.size());
  for (const auto& [id, record] : items) {
    if (!passes(record, in)) continue;
    if (!text.empty() && id.find(text) == std::string::npos &&
        record.get_string_value("name", "").find(text) == std::string::npos) {
      continue;
    }
    nlohmann::json key;
    if (column != "id" && record.is_present(column)) key = to_json(record.get_property(column));
    rows.push_back({&id, &record, std::move(key)});
  }
  const bool descending = order == "desc";
  // Ties go by id, always ascending, so that a page never shows a row twice.
  const auto less = [&](const row& a, const row& b) {
    if (column != "id") {
      if (value_less(a.key, b.key)) return !descending;
      if (value_less(b.key, a.key)) return descending;
      return *a.id < *b.id;
    }
    return descending ? *b.id < *a.id : *a.id < *b.id;
  };
  const std::size_t end = std::min(rows.size(), offset + limit);
  if (offset < rows.size()) {
    std::partial_sort(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(end), rows.end(),
                      less);
  }
  nlohmann::json out_rows = nlohmann::json::array();
  for (std::size_t i = offset; i < end; ++i) {
    out_rows.push_back({{"id", *rows[i].id}, {"record", to_json(*rows[i].record)}});
  }
  return json_response({{"total", items.size()},
                        {"matched", rows.size()},
                        {"offset", offset},
                        {"limit", limit},
                        {"rows", std::move(out_rows)}});
}

response api_routes::history(const request& in, const std::string& kind) const {
  zelcapi::state_item_type type{};
  if (snapshot_key_of(kind).empty() || !item_type_of(kind, type)) {
    return not_found("kind '" + kind + "'");
  }
  if (!replica_.has_history()) return not_found("history (serve runs with --history-keep 0)");
  return records_response(freeze(replica_.get_history_items(type),
                                 [&in](const zelcore::properties& r) { return passes(r, in); }));
}

}  // namespace zelctl::serve
