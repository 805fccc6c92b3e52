// The PostgreSQL implementations of the persistence interfaces, through libpq: postgres_state_db
// writes each save of a state as one transaction, postgres_history_db keeps historized records
// with their time. Each record is a row of its kind's table with the id as primary key and the
// record as jsonb, so that any client of the server can query it (docs/postgresql-schema.md
// describes the tables).
//
// A store is given a libpq connection string, a URI ("postgresql://user@host/db") or key=value
// pairs ("host=/run/postgresql dbname=mirror"); libpq's environment (PGHOST, PGPASSFILE, a
// service file) fills in what the string leaves out. Error texts name the server by its host,
// port, database and user only, never by its password.
//
// Threading: each store object takes its own locks, so a saver thread may write while another
// thread loads. A connection lost (a server restart, a network failure) fails the operation in
// progress; the next operation connects again.
//
// Leading: processes that keep one database by turns (a mirror and its standby) each call
// try_lead, which takes the store's writer lock (a session-level advisory lock of the database,
// docs/postgresql-schema.md) when no other session holds it. A store that called it writes only
// on the session that holds the lock: when that session ends, the next write opens a new one and
// takes the lock again first, and raises "does not lead ..." when another session holds it by
// then (as every write does until try_lead succeeds again). A store that never calls try_lead
// takes no lock.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "zelcapi/save_counts.h"
#include "zelcapi/state.h"
#include "zelcapi_postgres/export.h"

namespace zelcapi {

// A state_db on a PostgreSQL server, a database store as zelcapi/save_counts.h describes: one
// table per kind of record, the workflow results and the sequence number in their own tables.
// The first save into an empty table streams its records with COPY; within a save each id of a
// kind is stored once (as the saver does), a second store_item of it fails the save. A lost
// connection fails the save in progress; the next begin_save connects again.
class ZELCAPI_POSTGRES_EXPORT postgres_state_db final : public state_db {
 public:
  // Connects (twice: a writing and a reading connection) and creates the tables that are
  // missing. Raises es::uspec when the connection string is malformed, the server cannot be
  // reached or refuses the login, or the database holds a newer schema version or tables of
  // the same names with another layout.
  explicit postgres_state_db(const std::string& conninfo);
  // Rolls back a save left open and closes the connections.
  ~postgres_state_db() override;
  postgres_state_db(const postgres_state_db&) = delete;
  postgres_state_db& operator=(const postgres_state_db&) = delete;

  void clear() override;
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

  // Takes the state's writer lock when no other session holds it; true when this store holds
  // it. Raises es::uspec when the server cannot be reached.
  bool try_lead();
  // Whether this store holds the writer lock, as far as it knows: false once a new session
  // found the lock held by another; a session that ended is found at the next write, and a
  // server that cannot be reached changes nothing (nobody took the lock from this store yet).
  bool leads() const noexcept;

  save_counts last_save_counts() const;
  // Heap bytes that the digests of the committed records take.
  std::size_t digest_memory_bytes() const;
  // The server as error texts name it: host, port, database and user that the connection
  // string sets (no password).
  const std::string& server() const noexcept;

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};

// What the saves after a reader's last one changed (postgres_save_reader::read_since).
struct save_changes {
  // The save that the changes bring the reader to: the last one committed (0: none yet).
  std::uint64_t save = 0;
  // The records are all there are: what the reader holds and they lack is gone. So it is when
  // the reader held no save, when the saves after its own are no longer kept, or when one of
  // them emptied the tables.
  bool whole = false;
  // By db_item_type: each record written by a save after the reader's (id -> record; every
  // record when `whole`), never null.
  std::array<properties_cptr, 8> items;
  // By db_item_type: the ids that those saves removed and did not write again (none when
  // `whole`).
  std::array<std::vector<std::string>, 8> removed;
  // Every workflow result (id -> {"st", "ht"}) when a save after the reader's wrote them or
  // when `whole`; null when they did not change.
  properties_cptr workflow_results;
  std::uint64_t workflow_sequence_number = 0;
};

// Follows the saves that postgres_state_db commits to a database, for a reader that keeps a
// state of its own from them (`zelctl serve --from`): each save carries a number, each row the
// number of the save that wrote it, the ids each save removed are kept for the last 1,000 saves,
// and each commit is announced (NOTIFY zelcapi_saves). A reader loads the last save whole once,
// then fetches only what the later saves wrote and removed. One connection; it creates nothing,
// so a role that may only SELECT reads with it. Use it from one thread at a time.
class ZELCAPI_POSTGRES_EXPORT postgres_save_reader {
 public:
  // Connects and listens for the saves' announcements. Raises es::uspec as postgres_state_db's
  // constructor does, and when the database holds no state store ("holds no zelcapi state
  // store") or one of a schema version that numbers no saves or is newer.
  explicit postgres_save_reader(const std::string& conninfo);
  ~postgres_save_reader();
  postgres_save_reader(const postgres_save_reader&) = delete;
  postgres_save_reader& operator=(const postgres_save_reader&) = delete;

  // What the saves committed after save `since` changed (everything when `since` is 0), read in
  // one snapshot of the database. A lost connection is opened again first. Raises es::uspec
  // when the server cannot be reached or a row cannot be read.
  save_changes read_since(std::uint64_t since);
  // Waits up to `timeout` for the announcement of a committed save: true when one came, or when
  // the connection was opened again (announcements may have been missed meanwhile), false at
  // the time-out. Raises es::uspec when the connection fails or cannot be opened again.
  bool wait_for_save(std::chrono::milliseconds timeout);

  const std::string& server() const noexcept;

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};

// A history_db on a PostgreSQL server: one table of (kind, id, historize time, jsonb record),
// indexed by time. Each write is its own transaction unless begin_batch ... end_batch groups
// them. Errors raise as for postgres_state_db.
class ZELCAPI_POSTGRES_EXPORT postgres_history_db final : public history_db {
 public:
  // As postgres_state_db's constructor (one connection); the database may be a state store's.
  explicit postgres_history_db(const std::string& conninfo);
  // Rolls back a batch left open (begin_batch without its end_batch): none of it is kept.
  ~postgres_history_db() override;
  postgres_history_db(const postgres_history_db&) = delete;
  postgres_history_db& operator=(const postgres_history_db&) = delete;

  properties_cptr load_items(db_item_type type) override;
  bool load_item(db_item_type type, const std::string& id, zelcore::properties& out) override;
  void store_item(db_item_type type, const std::string& id,
                  const zelcore::properties& record) override;
  void remove_item(db_item_type type, const std::string& id) override;
  void remove_items(db_item_type type) override;
  // In one statement.
  void remove_items(db_item_type type, const std::set<std::string>& ids) override;
  std::uint64_t count_items(db_item_type type) override;
  std::uint32_t get_historize_time(db_item_type type, const std::string& id) override;
  void remove_items_historized_until(std::uint32_t time) override;
  // Selected with the jsonb operator ->>, then checked on the decoded record.
  properties_cptr load_items_where(db_item_type type, const std::string& key,
                                   const std::string& value) override;
  void clear() override;
  // Batches nest: the outermost one is the transaction. A failure inside a batch rolls it back
  // whole; its further writes raise until end_batch.
  void begin_batch() override;
  // Raises es::uspec when the commit fails (the batch is then rolled back).
  void end_batch() override;

  // As postgres_state_db's, with the history's own writer lock; not inside a batch.
  bool try_lead();
  bool leads() const noexcept;

  const std::string& server() const noexcept;

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};

}  // namespace zelcapi
