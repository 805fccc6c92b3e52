// The tables of the PostgreSQL stores: created when missing, checked when present.
#pragma once

#include <cstddef>
#include <cstdint>

#include "postgres_connection.h"

namespace zelcapi::postgres_detail {

// A table of a store: its name, its columns as information_schema lists them ("id text,record
// jsonb") and the statements that create it with its indexes; for a table that an older schema
// version laid out otherwise, its columns then and the statements that bring it up to date.
struct table_layout {
  const char* name;
  const char* columns;
  const char* create;
  const char* previous_columns = nullptr;
  const char* upgrade = nullptr;
};
// The advisory locks (session-level, of the database) that the writers of its state and of its
// history hold while they lead; one above the lock of the schema's creators ("zels").
inline constexpr std::int64_t state_writer_lock = 2053467252;
inline constexpr std::int64_t history_writer_lock = 2053467253;

// The channel on which a writer announces each committed save (NOTIFY, the save's number as the
// payload), and how many of the last saves keep their row in zelcapi_saves and their removed ids:
// a reader further behind loads everything again.
inline constexpr const char* saves_channel = "zelcapi_saves";
inline constexpr std::int64_t kept_saves = 1000;

// Creates the tables that are missing, brings those of an older layout up to date and sets the
// schema's version, in one transaction that holds an advisory lock, so that stores opened at once
// on an empty database do not race. Raises es::uspec for a newer schema version or a table of
// the same name with other columns.
void ensure_schema(connection& db, const table_layout* tables, std::size_t count);

}  // namespace zelcapi::postgres_detail
