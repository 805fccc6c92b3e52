// The tables of the PostgreSQL stores: created when missing, checked when present.
#pragma once

#include <cstddef>
#include <cstdint>

#include "postgres_connection.h"

namespace zelcapi::postgres_detail {

// A table of a store: its name, its columns as information_schema lists them ("id text,record
// jsonb") and the statements that create it with its indexes.
struct table_layout {
  const char* name;
  const char* columns;
  const char* create;
};
// The advisory locks (session-level, of the database) that the writers of its state and of its
// history hold while they lead; one above the lock of the schema's creators ("zels").
inline constexpr std::int64_t state_writer_lock = 2053467252;
inline constexpr std::int64_t history_writer_lock = 2053467253;

// Creates the tables that are missing and the schema's version, in one transaction that holds
// an advisory lock, so that stores opened at once on an empty database do not race. Raises
// es::uspec for a newer schema version or a table of the same name with other columns.
void ensure_schema(connection& db, const table_layout* tables, std::size_t count);

}  // namespace zelcapi::postgres_detail
