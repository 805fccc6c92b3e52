// What the SQLite and the PostgreSQL state stores share: the state_db operations written once
// over a store's own rows. A store is a writing connection, where each save is one transaction,
// and a reading connection for loads; this class keeps the phases of a save, the digests of what
// was committed, the locks of both connections and the snapshot of a load, and calls the
// store's hooks for what only its database knows (statements, COPY, reconnecting).
//
// Threading: the write hooks run under the write lock, the read hooks under the read lock; a
// saver thread may write while another thread loads. A store that writes a save's records on a
// thread of their own (save_writes::on_own_thread) has write_record called there, while the
// write lock's holder runs no other hook (see save_pipeline.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json_record.h"
#include "record_digests.h"
#include "save_pipeline.h"
#include "zelcapi/save_counts.h"
#include "zelcapi/state.h"

namespace zelcapi::store_detail {

// The tables of the eight kinds of record, in kind order (db_item_type).
inline constexpr const char* record_tables[8] = {"clients", "nodes", "submissions", "sources",
                                                 "slots",   "jobs",  "tasks",       "workflows"};

// `pattern` with every "@" replaced by `table`: a statement of one kind's table.
std::string for_table(const char* pattern, const char* table);

class state_store {
 public:
  using id_visitor = std::function<void(std::string_view id)>;
  using record_visitor = std::function<void(std::string_view id, std::string_view json)>;
  using result_visitor =
      std::function<void(std::string_view id, std::int64_t status, std::int64_t ht)>;

  // Where a save's records are written: on the saver's thread, or on a thread of their own while
  // the saver encodes the next ones (which pays where the database works in this process).
  enum class save_writes { on_saver_thread, on_own_thread };

  // `form`: the form of the JSON text that the store holds.
  state_store(json_form form, save_writes writes);
  virtual ~state_store() = default;

  // --- The state_db operations, as state_db documents them. ---
  void clear();
  void begin_save();
  void store_item(db_item_type type, const std::string& id, const zelcore::properties& record);
  void remove_item(db_item_type type, const std::string& id);
  void store_workflow_results(const workflow_result_map& results);
  // Deletes the records that the save did not hold, stores the number and commits the save.
  void store_workflow_sequence_number(std::uint64_t sequence_number);

  properties_cptr load_items(db_item_type type);
  bool load_item(db_item_type type, const std::string& id, zelcore::properties& out);
  properties_cptr load_workflow_results();
  std::uint64_t load_workflow_sequence_number();
  bool has_saved_state();
  // The outermost begin_load begins the reading connection's read transaction, whose snapshot
  // every read sees until the matching end_load ends it; within it a lost connection is not
  // opened again (the load raises). Reads of other threads meanwhile share the snapshot.
  void begin_load();
  void end_load() noexcept;

  save_counts last_save_counts() const;
  std::size_t digest_memory_bytes() const;

  // Runs `body` with the write lock held: an operation of the store's own on its writing
  // connection, between the saves of a saver thread (or between the writes of one, once the
  // rows in flight are written).
  template <class F>
  auto holding_write_lock(F&& body) {
    std::lock_guard<std::mutex> hold(write_lock_);
    pipeline_.wait();
    return body();
  }

  // Drops the rows of a save not written yet and rolls back an open transaction: a store calls
  // it when it closes, before its writing connection goes.
  void close_writes() noexcept;

  // Raises the store's error: es::uspec with error_text(why).
  [[noreturn]] void fail(const std::string& why) const;

 protected:
  // The text of an error of the store: `why` and the file or the server it names.
  virtual std::string error_text(const std::string& why) const = 0;

  // --- Write hooks, on the writing connection with the write lock held. ---

  // Begins a transaction (of a save, or of one write outside a save); true when it runs on a
  // new session of a server, which cannot know what other sessions wrote while there was none
  // (the digests are then read again).
  virtual bool begin_transaction() = 0;
  virtual void commit_transaction() = 0;
  // Rolls back an open transaction, ignoring errors (the caller is already failing).
  virtual void rollback_transaction() noexcept = 0;
  // Deletes every record, result and the sequence number within the open transaction.
  virtual void empty_tables() = 0;
  // Calls `visit` for each stored record of the kind (the id as stored, its JSON text).
  virtual void scan_records(std::size_t kind, const record_visitor& visit) = 0;
  virtual void scan_ids(std::size_t kind, const id_visitor& visit) = 0;
  // Writes one record from its JSON text: `in_save` inside a save (the store may stream it),
  // else on its own. With save_writes::on_own_thread, a save's records are written on that
  // thread while no other hook runs (see save_pipeline.h).
  virtual void write_record(std::size_t kind, std::string_view id, std::string_view json,
                            bool in_save) = 0;
  virtual void delete_records(std::size_t kind, const std::vector<std::string>& ids) = 0;
  // Replaces the stored results, and the sequence number.
  virtual void write_results(const workflow_result_map& results) = 0;
  virtual void write_sequence_number(std::uint64_t sequence_number) = 0;

  // In a save: whether the kind's table held no record when the save began.
  bool empty_at_save_start(std::size_t kind) noexcept { return digests_[kind].size() == 0; }

  // --- Read hooks, on the reading connection with the read lock held. ---

  // Opens the reading connection again when it was lost (a server's store).
  virtual void open_reader() {}
  // Whether the reading connection turned out to be lost, so that a read may run again.
  virtual bool reader_lost() const noexcept { return false; }
  // Begins the load's read transaction, and ends it (ignoring errors).
  virtual void begin_snapshot() = 0;
  virtual void end_snapshot() noexcept = 0;
  virtual void read_records(std::size_t kind, const record_visitor& visit) = 0;
  // Calls `visit` with the record's JSON text; false when there is none.
  virtual bool read_record(std::size_t kind, std::string_view id,
                           const std::function<void(std::string_view json)>& visit) = 0;
  virtual void read_results(const result_visitor& visit) = 0;
  // The stored sequence number; false when there is none (no complete save).
  virtual bool read_sequence_number(std::uint64_t& out) = 0;

 private:
  enum class phase { idle, saving, abandoned };

  // Runs a write of the save in progress, or outside a save one that is its own transaction;
  // with `completes` the write ends the save and commits it. A failure inside a save rolls it
  // back and makes the save's further writes fail.
  template <class F>
  void _write(F&& body, bool completes = false) {
    std::lock_guard<std::mutex> hold(write_lock_);
    _write_unlocked(std::forward<F>(body), completes);
  }

  // A write waits until the rows handed to the save's writing thread are written, unless
  // `pipelined`: the body only hands it more.
  template <class F>
  void _write_unlocked(F&& body, bool completes, bool pipelined = false) {
    if (phase_ == phase::abandoned)
      fail("the save was abandoned after an error; begin_save starts a new one");
    const bool own = phase_ == phase::idle;
    try {
      if (!pipelined) pipeline_.drain();
      if (own && begin_transaction()) digests_.forget();
      body();
      if (own || completes) commit_transaction();
    } catch (...) {
      pipeline_.discard();
      rollback_transaction();
      digests_.forget();
      if (!own) phase_ = phase::abandoned;
      throw;
    }
    if (completes) {
      phase_ = phase::idle;
      if (!own) digests_.commit_save();
    }
  }

  // Rolls back an open save and begins a transaction for a new one; with `emptied` every table
  // is emptied within it, otherwise the digests of what the tables hold are made known.
  void _begin(bool emptied);
  // Reads the digests of what a kind's table holds, inside the save's transaction.
  void _rebuild_digests(std::size_t kind);
  // Deletes the stored records of a kind that the save did not hold: every row whose id's hash
  // the save has not seen (found by reading the ids, which only a save with removals does).
  void _remove_unseen(std::size_t kind);
  bool _saving() const noexcept { return phase_ == phase::saving; }

  // A read under the read lock; outside a load, tried again once on a connection opened again
  // when the old one turns out to be lost.
  template <class F>
  auto _read(F&& body) {
    std::lock_guard<std::mutex> hold(read_lock_);
    if (load_depth_ > 0) return body();
    open_reader();
    try {
      return body();
    } catch (...) {
      if (!reader_lost()) throw;
    }
    open_reader();
    return body();
  }

  mutable std::mutex write_lock_;
  phase phase_ = phase::idle;
  store_digests digests_;  // of what the tables hold, and the counts of the save
  json_form form_;
  bool pipelined_;
  zelbase::encoder_network json_;  // a record written on the saver's thread
  save_pipeline pipeline_;         // a save's records on their way to write_record

  std::mutex read_lock_;
  int load_depth_ = 0;  // begin_load calls not yet ended
};

}  // namespace zelcapi::store_detail
