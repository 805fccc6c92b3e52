// Creating the stores' tables when missing and refusing a database whose schema is newer or
// whose tables of the same names have other columns.
#include <map>

#include "postgres_schema.h"

namespace zelcapi::postgres_detail {

namespace {

// The version of the tables that this library writes, kept in zelcapi_meta. Version 2 numbers
// the saves (a record's row carries the save that wrote it) for the readers that follow them.
constexpr int schema_version = 2;
// The advisory lock that serializes the creators of a database's schema ("zels").
constexpr const char* creators_lock = "SELECT pg_advisory_xact_lock(2053467251)";

constexpr table_layout meta = {
    "zelcapi_meta", "key text,value text",
    "CREATE TABLE zelcapi_meta(key text PRIMARY KEY, value text NOT NULL)"};

// The columns of the tables of the current schema, as "name type,name type" by table.
std::map<std::string, std::string> existing_tables(connection& db) {
  const result r = db.exec(
      "SELECT table_name::text, string_agg(column_name || ' ' || data_type, ','"
      " ORDER BY ordinal_position) FROM information_schema.columns"
      " WHERE table_schema = current_schema() GROUP BY table_name");
  std::map<std::string, std::string> out;
  for (int row = 0; row < r.rows(); ++row)
    out.emplace(std::string(r.text(row, 0)), std::string(r.text(row, 1)));
  return out;
}

void check_columns(connection& db, const table_layout& table, const std::string& columns) {
  if (columns != table.columns)
    db.fail("table " + std::string(table.name) + " has the columns (" + columns +
            ") where this library expects (" + table.columns + "): not a zelcapi store");
}

// Refuses a newer version; an older one is raised to this library's, whose tables the store
// then brings up to date (the other store's tables, when it opens).
void check_version(connection& db) {
  const result r = db.exec("SELECT value FROM zelcapi_meta WHERE key = $1", {"schema_version"});
  if (r.rows() == 0) db.fail("table zelcapi_meta holds no schema_version: not a zelcapi store");
  const std::int64_t version = r.integer(0, 0);
  if (version > schema_version)
    db.fail("schema version " + std::to_string(version) + " is newer than version " +
            std::to_string(schema_version) + " that this library reads");
  if (version < schema_version)
    db.exec("UPDATE zelcapi_meta SET value = '" + std::to_string(schema_version) +
            "' WHERE key = 'schema_version'");
}

void create_or_check(connection& db, const table_layout* tables, std::size_t count) {
  db.exec(creators_lock);
  const std::map<std::string, std::string> existing = existing_tables(db);
  const auto meta_columns = existing.find(meta.name);
  if (meta_columns != existing.end()) {
    check_columns(db, meta, meta_columns->second);
    check_version(db);
  } else {
    for (std::size_t i = 0; i < count; ++i) {
      if (existing.count(tables[i].name))
        db.fail("table " + std::string(tables[i].name) +
                " exists in a database without table zelcapi_meta: not a zelcapi store");
    }
    db.exec(meta.create);
    db.exec(
        "INSERT INTO zelcapi_meta VALUES ('application', 'zelcapi'),"
        " ('schema_version', '" +
        std::to_string(schema_version) + "')");
  }
  for (std::size_t i = 0; i < count; ++i) {
    const table_layout& table = tables[i];
    const auto columns = existing.find(table.name);
    if (columns == existing.end())
      db.exec(table.create);
    else if (table.previous_columns && columns->second == table.previous_columns)
      db.exec(table.upgrade);
    else
      check_columns(db, table, columns->second);
  }
}

}  // namespace

void ensure_schema(connection& db, const table_layout* tables, std::size_t count) {
  db.exec("BEGIN");
  try {
    create_or_check(db, tables, count);
    db.exec("COMMIT");
  } catch (...) {
    db.rollback_quietly();
    throw;
  }
}

}  // namespace zelcapi::postgres_detail
