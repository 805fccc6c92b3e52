// The replica as the JSON that zelctl prints: the whole snapshot, one kind, one record, written
// straight from the replica's trees (json_writer.h), and the counts of its records. The one
// reading of the replica that `zelctl state` and `zelctl serve` share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "json_writer.h"
#include "zelcapi/state.h"

namespace zelctl {

// The snapshot's keys in the order of its JSON (byte order): the item kinds' keys,
// "workflow-results", "workflow-seq-nr", "workflows".
const std::vector<std::string>& snapshot_json_keys();
// The workflows ("workflows") or the workflow results ("workflow-results") as one tree, id ->
// record, as the snapshot holds them; false for another key.
bool workflow_tree(const zelcapi::state& replica, const std::string& key, zelcore::properties& out);
// The snapshot's "workflow-seq-nr".
std::int64_t workflow_seq_nr(const zelcapi::state& replica);
// The number of records of a snapshot key, counted without converting any.
std::size_t record_count(const zelcapi::state& replica, const std::string& key);

// Called after each record written, so that the caller may pass the text on.
using after_record = std::function<void()>;
// Writes the whole snapshot ("clients" ... "workflows", "workflow-seq-nr").
void write_state(json_writer& out, const zelcapi::state& replica, const after_record& written);
// Writes the records of one snapshot key (an object, id -> record).
void write_kind(json_writer& out, const zelcapi::state& replica, const std::string& key,
                const after_record& written);

// The records of one snapshot key (id -> record) as a JSON document; an unknown key gives null.
nlohmann::json kind_json(const zelcapi::state& replica, const std::string& key);

}  // namespace zelctl
