// One SQLite connection of the stores and its prepared statements: opening with the schema
// checks, and every SQLite error raised as zelbase::es::uspec with SQLite's message and the path.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "json_record.h"
#include "zelcapi/sqlite_db.h"
#include "zelcore/properties.h"

namespace zelcapi::sqlite_detail {

// PRAGMA application_id of a store file ("zels"), and the schema version this library writes.
constexpr std::int64_t application_id = 0x7a656c73;
constexpr std::int64_t schema_version = 1;

// The lock that makes a state store the only writer of its file (two writers would each save
// over the other's records with digests of their own): an exclusive flock on "<path>-lock",
// given up, the lock file removed, when the store closes. A writer killed leaves the file
// behind, unlocked. A lock file apart from the database, since closing a descriptor of the
// database would drop SQLite's own locks of this process.
class writer_lock {
 public:
  explicit writer_lock(std::string path) : path_(std::move(path)), lock_path_(path_ + "-lock") {}
  ~writer_lock();
  writer_lock(const writer_lock&) = delete;
  writer_lock& operator=(const writer_lock&) = delete;

  // Takes the lock unless another writer holds it; true when this one holds it. Raises
  // es::uspec when the lock file cannot be created.
  bool try_take();
  // Takes the lock; raises es::uspec when another writer holds it as well.
  void take();

 private:
  std::string path_;
  std::string lock_path_;
  int fd_ = -1;
};

class connection;
// The tree of a stored record; raises es::uspec naming the table and the id when its JSON text
// cannot be read. With `strings`, equal short strings share one property with the records read
// before through it.
zelcore::properties decode_record(const connection& db, const char* table, std::string_view id,
                                  std::string_view json,
                                  store_detail::shared_strings* strings = nullptr);

class connection {
 public:
  // Opens `path` and checks that it is a store of this library (or a new file), raising
  // es::uspec otherwise. With `schema`, it sets WAL mode and the options' durability and creates
  // the tables that `schema` names; without it, the connection only reads.
  connection(const std::string& path, const sqlite_options& options, const char* schema);

  void exec(const char* sql);
  // Rolls back an open transaction, ignoring errors (the caller is already failing).
  void rollback_quietly() noexcept;
  bool in_transaction() const noexcept;
  [[noreturn]] void fail() const;
  [[noreturn]] void fail(const std::string& why) const;
  // The text of an error of this file: "SQLite store '<path>': <why>".
  std::string error_text(const std::string& why) const;
  sqlite3* handle() const noexcept { return db_.get(); }
  const std::string& path() const noexcept { return path_; }

 private:
  struct closer {
    void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
  };
  std::int64_t _query_int(const char* sql);
  void _check_schema(bool create);

  std::string path_;
  std::unique_ptr<sqlite3, closer> db_;
};

// A statement prepared once; bound values are not copied and must outlive the step.
class statement {
 public:
  statement(connection& db, const char* sql);
  statement(const statement&) = delete;
  statement& operator=(const statement&) = delete;

  void bind(int index, std::string_view text);
  void bind(int index, std::int64_t value);
  // Steps once: true when a row is there. Raises es::uspec on an error (the statement is reset).
  bool step();
  // Steps to the end and resets.
  void run();
  std::string_view text(int column) const;
  std::int64_t integer(int column) const;
  void reset() noexcept;

 private:
  struct finalizer {
    void operator()(sqlite3_stmt* s) const noexcept { sqlite3_finalize(s); }
  };
  connection* db_;
  std::unique_ptr<sqlite3_stmt, finalizer> stmt_;
};

// Resets a statement when leaving the scope, also on an exception.
class reset_on_exit {
 public:
  explicit reset_on_exit(statement& s) noexcept : s_(s) {}
  ~reset_on_exit() { s_.reset(); }
  reset_on_exit(const reset_on_exit&) = delete;
  reset_on_exit& operator=(const reset_on_exit&) = delete;

 private:
  statement& s_;
};

}  // namespace zelcapi::sqlite_detail
