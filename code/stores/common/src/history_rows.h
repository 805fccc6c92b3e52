// What the SQLite and the PostgreSQL history stores share about their one table: the text of a
// row's kind, and the check of a record that a selection by a string field found.
#pragma once

#include <string>
#include <string_view>

#include "zelcapi/memory_db.h"
#include "zelcapi/state.h"
#include "zelcore/properties.h"

namespace zelcapi::store_detail {

// The kind column of a row ("job", "workflow", ...); raises es::arg for a kind outside 0 to 7.
inline std::string_view history_kind(db_item_type type) {
  db_item_index(type, "history_db");
  return db_item_type_c_str(static_cast<int>(type));
}

// Whether the record's top-level `key` is a string equal to `value`: the selection of
// load_items_where, checked on the decoded record after the database's own test.
inline bool has_string(const zelcore::properties& record, const std::string& key,
                       const std::string& value) {
  const zelcore::property_ptr field = record.get_property(key);
  return field && field->kind() == zelcore::property::kind_string &&
         static_cast<const zelcore::property_string&>(*field).value() == value;
}

}  // namespace zelcapi::store_detail
