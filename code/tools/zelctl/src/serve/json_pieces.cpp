// Freezing records and writing a JSON plan in pieces.
#include "serve/json_pieces.h"

#include <algorithm>
#include <functional>

#include "json_output.h"
#include "kinds.h"

namespace zelctl::serve {

frozen_records freeze(const zelcapi::state::item_map& items) {
  frozen_records out;
  out.reserve(items.size());
  for (const auto& [id, record] : items) out.emplace_back(id, record);
  return out;
}

frozen_records freeze_children(const zelcore::properties& tree) {
  frozen_records out;
  out.reserve(tree.size());
  for (const auto& [key, child] : tree) {
    if (child && child->kind() == zelcore::property::kind_properties) {
      out.emplace_back(key, static_cast<const zelcore::properties&>(*child));
    }
  }
  return out;
}

void json_plan::add_text(std::string text) {
  part p;
  p.text = std::move(text);
  parts_.push_back(std::move(p));
}

void json_plan::add_records(frozen_records records) {
  part p;
  p.records = std::move(records);
  p.is_records = true;
  parts_.push_back(std::move(p));
}

void json_plan::add_state(const zelcapi::state& replica) {
  // The snapshot's members in key order, as the JSON of the whole tree has them.
  std::vector<std::pair<std::string, std::function<void()>>> members;
  for (std::uint32_t t = zelcapi::state_item_client; t <= zelcapi::state_item_task; ++t) {
    const auto type = static_cast<zelcapi::state_item_type>(t);
    members.emplace_back(snapshot_key_of(type),
                         [this, &replica, type] { add_records(freeze(replica.get_items(type))); });
  }
  members.emplace_back("workflow-results", [this, &replica] {
    zelcore::properties results;
    replica.get_workflow_results(results);
    add_records(freeze_children(results));
  });
  members.emplace_back("workflows", [this, &replica] {
    zelcore::properties workflows;
    replica.get_workflows(workflows);
    add_records(freeze_children(workflows));
  });
  members.emplace_back("workflow-seq-nr", [this, &replica] {
    add_text(std::to_string(replica.get_workflow_manager().get_current_sequence_number()));
  });
  std::sort(members.begin(), members.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  const char* separator = "{";
  for (const auto& [key, add_value] : members) {
    add_text(separator + json_text(key, false) + ":");
    add_value();
    separator = ",";
  }
  add_text("}");
}

bool json_pieces::next(std::string& out) {
  const std::size_t start = out.size();
  const auto& parts = plan_->parts_;
  while (part_ < parts.size() && out.size() - start < piece_bytes_) {
    const json_plan::part& p = parts[part_];
    if (!p.is_records) {
      out += p.text;
      ++part_;
      continue;
    }
    if (!opened_) {
      out += '{';
      opened_ = true;
    }
    while (record_ < p.records.size() && out.size() - start < piece_bytes_) {
      if (record_ > 0) out += ',';
      append_record_json(out, p.records[record_].first, p.records[record_].second);
      ++record_;
    }
    if (record_ < p.records.size()) break;
    out += '}';
    record_ = 0;
    opened_ = false;
    ++part_;
  }
  return part_ < parts.size();
}

void append_record_json(std::string& out, const std::string& id,
                        const zelcore::properties& record) {
  out += json_text(id, false);
  out += ':';
  out += json_text(to_json(record), false);
}

}  // namespace zelctl::serve
