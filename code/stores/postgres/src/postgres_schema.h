// The tables of the PostgreSQL stores: created when missing, checked when present.
#pragma once

#include <cstddef>

#include "postgres_connection.h"

namespace zelcapi::postgres_detail {

// A table of a store: its name, its columns as information_schema lists them ("id text,record
// jsonb") and the statements that create it with its indexes.
struct table_layout {
  const char* name;
  const char* columns;
  const char* create;
};
// Creates the tables that are missing and the schema's version, in one transaction that holds
// an advisory lock, so that stores opened at once on an empty database do not race. Raises
// es::uspec for a newer schema version or a table of the same name with other columns.
void ensure_schema(connection& db, const table_layout* tables, std::size_t count);

}  // namespace zelcapi::postgres_detail
