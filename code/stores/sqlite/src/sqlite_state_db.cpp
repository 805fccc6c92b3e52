// The SQLite state_db: one transaction per save on a writing connection, loads on a second
// connection that sees the last committed save; the save's logic is the stores' shared one.
#include <array>
#include <utility>

#include "sqlite_file.h"
#include "state_store.h"
#include "zelcapi/sqlite_db.h"

namespace zelcapi {

using sqlite_detail::connection;
using sqlite_detail::reset_on_exit;
using sqlite_detail::statement;
using store_detail::for_table;
using store_detail::record_tables;

namespace {

constexpr const char* schema =
    "CREATE TABLE IF NOT EXISTS clients(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS nodes(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS submissions(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS sources(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS slots(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS jobs(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS tasks(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS workflows(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS workflow_results(id TEXT PRIMARY KEY NOT NULL,"
    " status INTEGER NOT NULL, ht INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS workflow_sequence(number INTEGER NOT NULL);";

// The statements of each kind's table, in kind order.
template <class Kind, std::size_t... Index>
std::array<Kind, 8> per_kind(connection& db, std::index_sequence<Index...>) {
  return {{Kind(db, record_tables[Index])...}};
}

}  // namespace

struct ZELCAPI_SQLITE_NO_EXPORT sqlite_state_db::impl final : store_detail::state_store {
  // The statements of one kind's table on the writing connection.
  struct kind_writes {
    kind_writes(connection& db, const char* table)
        : insert(db,
                 for_table("INSERT OR REPLACE INTO @(id, record) VALUES(?1, ?2)", table).c_str()),
          remove(db, for_table("DELETE FROM @ WHERE id = ?1", table).c_str()),
          remove_all(db, for_table("DELETE FROM @", table).c_str()),
          ids(db, for_table("SELECT id FROM @", table).c_str()),
          records(db, for_table("SELECT id, record FROM @", table).c_str()) {}
    statement insert, remove, remove_all, ids, records;
  };
  // The statements of one kind's table on the reading connection.
  struct kind_reads {
    kind_reads(connection& db, const char* table)
        : all(db, for_table("SELECT id, record FROM @ ORDER BY id", table).c_str()),
          one(db, for_table("SELECT record FROM @ WHERE id = ?1", table).c_str()) {}
    statement all, one;
  };

  // A save's rows are inserted on a thread of their own: SQLite works in this process, and the
  // saver's encoding of the next rows overlaps its inserts.
  impl(const std::string& path, const sqlite_options& options)
      : state_store(store_detail::json_form::text, save_writes::on_own_thread),
        read_only(options.read_only),
        lock(path),
        writer(path, options, schema),
        writes(per_kind<kind_writes>(writer, std::make_index_sequence<8>())),
        results_remove_all(writer, "DELETE FROM workflow_results"),
        results_insert(writer, "INSERT OR REPLACE INTO workflow_results VALUES(?1, ?2, ?3)"),
        sequence_remove_all(writer, "DELETE FROM workflow_sequence"),
        sequence_insert(writer, "INSERT INTO workflow_sequence VALUES(?1)"),
        begin(writer, "BEGIN IMMEDIATE"),
        commit(writer, "COMMIT"),
        reader(path, options, nullptr),
        reads(per_kind<kind_reads>(reader, std::make_index_sequence<8>())),
        results_all(reader, "SELECT id, status, ht FROM workflow_results ORDER BY id"),
        sequence_one(reader, "SELECT number FROM workflow_sequence LIMIT 1") {}

  std::string error_text(const std::string& why) const override { return writer.error_text(why); }

  bool begin_transaction() override {
    if (!read_only) lock.take();
    begin.run();
    return false;
  }
  void commit_transaction() override { commit.run(); }
  void rollback_transaction() noexcept override { writer.rollback_quietly(); }

  void empty_tables() override {
    for (kind_writes& kind : writes) kind.remove_all.run();
    results_remove_all.run();
    sequence_remove_all.run();
  }

  void scan_records(std::size_t kind, const record_visitor& visit) override {
    statement& records = writes[kind].records;
    reset_on_exit done(records);
    while (records.step()) visit(records.text(0), records.text(1));
  }

  void scan_ids(std::size_t kind, const id_visitor& visit) override {
    statement& ids = writes[kind].ids;
    reset_on_exit done(ids);
    while (ids.step()) visit(ids.text(0));
  }

  void write_record(std::size_t kind, std::string_view id, std::string_view text, bool) override {
    statement& insert = writes[kind].insert;
    insert.bind(1, id);
    insert.bind(2, text);
    insert.run();
  }

  void delete_records(std::size_t kind, const std::vector<std::string>& ids) override {
    statement& remove = writes[kind].remove;
    for (const std::string& id : ids) {
      remove.bind(1, id);
      remove.run();
    }
  }

  void write_results(const workflow_result_map& results) override {
    results_remove_all.run();
    for (const auto& [id, result] : results) {
      // As workflow_result_info::encode writes them.
      results_insert.bind(1, id);
      results_insert.bind(2, std::int64_t{static_cast<std::int32_t>(result.status)});
      results_insert.bind(3, std::int64_t{result.ht});
      results_insert.run();
    }
  }

  void write_sequence_number(std::uint64_t sequence_number) override {
    sequence_remove_all.run();
    sequence_insert.bind(1, static_cast<std::int64_t>(sequence_number));
    sequence_insert.run();
  }

  // Deferred: the snapshot is taken by the load's first read (write-ahead logging lets the
  // writer commit meanwhile).
  void begin_snapshot() override { reader.exec("BEGIN"); }
  void end_snapshot() noexcept override { reader.rollback_quietly(); }

  void read_records(std::size_t kind, const record_visitor& visit) override {
    statement& all = reads[kind].all;
    reset_on_exit done(all);
    while (all.step()) visit(all.text(0), all.text(1));
  }

  bool read_record(std::size_t kind, std::string_view id,
                   const std::function<void(std::string_view)>& visit) override {
    statement& one = reads[kind].one;
    reset_on_exit done(one);
    one.bind(1, id);
    if (!one.step()) return false;
    visit(one.text(0));
    return true;
  }

  void read_results(const result_visitor& visit) override {
    reset_on_exit done(results_all);
    while (results_all.step())
      visit(results_all.text(0), results_all.integer(1), results_all.integer(2));
  }

  bool read_sequence_number(std::uint64_t& out) override {
    reset_on_exit done(sequence_one);
    if (!sequence_one.step()) return false;
    out = static_cast<std::uint64_t>(sequence_one.integer(0));
    return true;
  }

  bool read_only;
  sqlite_detail::writer_lock lock;  // taken at the first write; given up after the connections
  connection writer;
  std::array<kind_writes, 8> writes;
  statement results_remove_all, results_insert, sequence_remove_all, sequence_insert;
  statement begin, commit;

  connection reader;
  std::array<kind_reads, 8> reads;
  statement results_all, sequence_one;
};

sqlite_state_db::sqlite_state_db(const std::string& path, const sqlite_options& options)
    : impl_(std::make_unique<impl>(path, options)) {}

sqlite_state_db::~sqlite_state_db() { impl_->close_writes(); }

const std::string& sqlite_state_db::path() const noexcept { return impl_->writer.path(); }

bool sqlite_state_db::try_lead() {
  return impl_->holding_write_lock([this] { return impl_->lock.try_take(); });
}

void sqlite_state_db::clear() { impl_->clear(); }

properties_cptr sqlite_state_db::load_items(db_item_type type) { return impl_->load_items(type); }

properties_cptr sqlite_state_db::load_workflow_results() { return impl_->load_workflow_results(); }

std::uint64_t sqlite_state_db::load_workflow_sequence_number() {
  return impl_->load_workflow_sequence_number();
}

void sqlite_state_db::store_item(db_item_type type, const std::string& id,
                                 const zelcore::properties& record) {
  impl_->store_item(type, id, record);
}

void sqlite_state_db::remove_item(db_item_type type, const std::string& id) {
  impl_->remove_item(type, id);
}

void sqlite_state_db::store_workflow_results(const workflow_result_map& results) {
  impl_->store_workflow_results(results);
}

void sqlite_state_db::store_workflow_sequence_number(std::uint64_t sequence_number) {
  impl_->store_workflow_sequence_number(sequence_number);
}

bool sqlite_state_db::load_item(db_item_type type, const std::string& id,
                                zelcore::properties& out) {
  return impl_->load_item(type, id, out);
}

bool sqlite_state_db::has_saved_state() { return impl_->has_saved_state(); }

void sqlite_state_db::begin_save() { impl_->begin_save(); }

void sqlite_state_db::begin_load() { impl_->begin_load(); }

void sqlite_state_db::end_load() noexcept { impl_->end_load(); }

save_counts sqlite_state_db::last_save_counts() const { return impl_->last_save_counts(); }

std::size_t sqlite_state_db::digest_memory_bytes() const { return impl_->digest_memory_bytes(); }

}  // namespace zelcapi
