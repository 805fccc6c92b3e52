// Freezing records and writing a JSON plan in pieces.
#include "serve/json_pieces.h"

#include "json_writer.h"
#include "kinds.h"
#include "replica_json.h"

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
  const char* separator = "{";
  for (const std::string& key : snapshot_json_keys()) {
    std::string text = separator;
    append_json_string(text, key);
    text += ':';
    separator = ",";
    zelcapi::state_item_type type{};
    zelcore::properties tree;
    if (item_type_of(key, type)) {
      add_text(std::move(text));
      add_records(freeze(replica.get_items(type)));
    } else if (workflow_tree(replica, key, tree)) {
      add_text(std::move(text));
      add_records(freeze_children(tree));
    } else {
      add_text(text + std::to_string(workflow_seq_nr(replica)));
    }
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
  append_json_string(out, id);
  out += ':';
  json_writer(out, false).value(record);
}

}  // namespace zelctl::serve
