// The SQLite implementations of the persistence interfaces: sqlite_state_db writes each save of a
// state as one transaction, sqlite_history_db keeps historized records with their time. Each
// record is a row whose id is its own indexed column and whose content is JSON text, so that
// the file can be queried from the sqlite3 shell (docs/sqlite-schema.md describes the tables).
//
// Threading: each store object takes its own locks, so a saver thread may write while another
// thread loads.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "zelcapi/save_counts.h"
#include "zelcapi/state.h"
#include "zelcapi_sqlite/export.h"

namespace zelcapi {

// What a committed write survives. In both the file stays consistent after a crash and a save
// that was not committed is rolled back.
enum class sqlite_durability : std::uint32_t {
  // synchronous=NORMAL: a committed save survives a crash of the process; on power loss the
  // last saves may be lost, and the file then holds an earlier complete save.
  normal = 0,
  // synchronous=FULL: a committed save also survives power loss (each commit waits for the disk).
  full = 1,
};

struct sqlite_options {
  sqlite_durability durability = sqlite_durability::normal;
  // Opens an existing store for loading only; every write raises.
  bool read_only = false;
  // Upper bound of the file's size in bytes (0: none); a write that would pass it raises
  // "database or disk is full" and its save is rolled back.
  std::uint64_t max_size_bytes = 0;
  // How long a write waits for another connection's lock on the same file.
  std::uint32_t busy_timeout_ms = 5000;
};

// A state_db in an SQLite file, a database store as zelcapi/save_counts.h describes: one table
// per kind of record, the workflow results and the sequence number in their own tables. Errors
// name the file's path.
class ZELCAPI_SQLITE_EXPORT sqlite_state_db final : public state_db {
 public:
  // Opens the file, creating it and its tables when it does not exist. Raises es::uspec when it
  // cannot be opened, is not a database, belongs to another application or has a newer schema.
  //
  // One store writes a file at a time: the first write (a save, clear) takes "<path>-lock" (a
  // flock, the file removed when the store closes), and raises "another writer has it open"
  // when another store, of this process or another, holds it. Stores that only load take none.
  explicit sqlite_state_db(const std::string& path, const sqlite_options& options = {});
  // Rolls back a save left open.
  ~sqlite_state_db() override;
  sqlite_state_db(const sqlite_state_db&) = delete;
  sqlite_state_db& operator=(const sqlite_state_db&) = delete;

  void clear() override;
  // In id order.
  properties_cptr load_items(db_item_type type) override;
  properties_cptr load_workflow_results() override;
  std::uint64_t load_workflow_sequence_number() override;
  void store_item(db_item_type type, const std::string& id,
                  const zelcore::properties& record) override;
  void remove_item(db_item_type type, const std::string& id) override;
  void store_workflow_results(const workflow_result_map& results) override;
  void store_workflow_sequence_number(std::uint64_t sequence_number) override;
  bool load_item(db_item_type type, const std::string& id, zelcore::properties& out) override;
  bool has_saved_state() override;
  void begin_save() override;
  void begin_load() override;
  void end_load() noexcept override;

  save_counts last_save_counts() const;
  // Heap bytes that the digests of the committed records take.
  std::size_t digest_memory_bytes() const;
  const std::string& path() const noexcept;
  // Takes the file's writer lock now, before any write: false when another store holds it (a
  // program that must be the file's only writer asks before it begins its work).
  bool try_lead();

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};

// A history_db in an SQLite file: one table of (kind, id, historize time, JSON record), indexed
// by time. Each write is its own transaction unless begin_batch ... end_batch groups them.
// Errors raise as for sqlite_state_db.
class ZELCAPI_SQLITE_EXPORT sqlite_history_db final : public history_db {
 public:
  // As sqlite_state_db's constructor; the file may be the same as a state store's.
  explicit sqlite_history_db(const std::string& path, const sqlite_options& options = {});
  // Rolls back a batch left open (begin_batch without its end_batch): none of it is kept.
  ~sqlite_history_db() override;
  sqlite_history_db(const sqlite_history_db&) = delete;
  sqlite_history_db& operator=(const sqlite_history_db&) = delete;

  properties_cptr load_items(db_item_type type) override;
  bool load_item(db_item_type type, const std::string& id, zelcore::properties& out) override;
  void store_item(db_item_type type, const std::string& id,
                  const zelcore::properties& record) override;
  void remove_item(db_item_type type, const std::string& id) override;
  void remove_items(db_item_type type) override;
  // In one transaction.
  void remove_items(db_item_type type, const std::set<std::string>& ids) override;
  std::uint64_t count_items(db_item_type type) override;
  std::uint32_t get_historize_time(db_item_type type, const std::string& id) override;
  void remove_items_historized_until(std::uint32_t time) override;
  // Selected with json_extract, then checked on the decoded record.
  properties_cptr load_items_where(db_item_type type, const std::string& key,
                                   const std::string& value) override;
  void clear() override;
  // Batches nest: the outermost one is the transaction.
  void begin_batch() override;
  // Raises es::uspec when the commit fails (the batch is then rolled back).
  void end_batch() override;

  const std::string& path() const noexcept;

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};

}  // namespace zelcapi
