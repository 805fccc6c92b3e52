// Large JSON answers of zelctl serve, written a piece at a time: a plan of the text (literal
// parts and objects of records) is frozen at one instant, in the time it takes to copy the
// records' references (each record shares its tree with the replica's), and a writer then makes
// the text from it a few dozen KiB at a time, between other work, while the replica goes on
// changing. One plan may feed several writers (one snapshot, many stream clients).
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "serve/http_server.h"
#include "zelcapi/state.h"
#include "zelcore/properties.h"

namespace zelctl::serve {

// Records by id, in id order, frozen: later changes of the replica do not reach them.
using frozen_records = std::vector<std::pair<std::string, zelcore::properties>>;

// The records of a store that `keep` accepts.
template <class Keep>
frozen_records freeze(const zelcapi::state::item_map& items, Keep keep) {
  frozen_records out;
  for (const auto& [id, record] : items) {
    if (keep(record)) out.emplace_back(id, record);
  }
  return out;
}
frozen_records freeze(const zelcapi::state::item_map& items);
// The children of a tree that are trees themselves (encoded workflows, workflow results).
frozen_records freeze_children(const zelcore::properties& tree);

class json_plan {
 public:
  // Text written as it is.
  void add_text(std::string text);
  // An object of the records, id -> record.
  void add_records(frozen_records records);
  // The replica's whole snapshot, as zelctl state prints it ("clients" ... "workflows", in key
  // order).
  void add_state(const zelcapi::state& replica);

 private:
  friend class json_pieces;
  struct part {
    std::string text;
    frozen_records records;
    bool is_records = false;
  };
  std::vector<part> parts_;
};

// Writes a plan's text, a piece at a time.
class json_pieces final : public body_pieces {
 public:
  // Each piece ends after the record that takes it past `piece_bytes`.
  explicit json_pieces(std::shared_ptr<const json_plan> plan, std::size_t piece_bytes = 64 * 1024)
      : plan_(std::move(plan)), piece_bytes_(piece_bytes) {}
  bool next(std::string& out) override;

 private:
  std::shared_ptr<const json_plan> plan_;
  std::size_t piece_bytes_;
  std::size_t part_ = 0;
  std::size_t record_ = 0;
  bool opened_ = false;  // the current object of records has its '{'
};

// One member of an object: the id as a JSON string, a colon, the record's JSON. The one place
// that turns a record into text for the pieces.
void append_record_json(std::string& out, const std::string& id, const zelcore::properties& record);

}  // namespace zelctl::serve
