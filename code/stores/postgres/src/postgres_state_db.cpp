// The PostgreSQL state_db: one transaction per save on a writing connection whose changed records
// stream through COPY, loads on a second connection that sees the last committed save.
#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

#include "postgres_connection.h"
#include "postgres_schema.h"
#include "state_store.h"
#include "zelcapi/postgres_db.h"

namespace zelcapi {

using postgres_detail::connection;
using postgres_detail::result;
using store_detail::for_table;
using store_detail::record_tables;

namespace {

// A record's row carries the number of the save that wrote it last (`saved_in`), indexed, so that
// a reader that holds a save fetches only the rows written after it.
#define ZEL_RECORD_TABLE(name)                                                                   \
  postgres_detail::table_layout {                                                                \
    name, "id text,record jsonb,saved_in bigint",                                                \
        "CREATE TABLE " name                                                                     \
        "(id text PRIMARY KEY, record jsonb NOT NULL,"                                           \
        " saved_in bigint NOT NULL DEFAULT 0); CREATE INDEX " name "_saved_in ON " name          \
        "(saved_in)",                                                                            \
        "id text,record jsonb",                                                                  \
        "ALTER TABLE " name " ADD COLUMN saved_in bigint NOT NULL DEFAULT 0; CREATE INDEX " name \
        "_saved_in ON " name "(saved_in)"                                                        \
  }
constexpr postgres_detail::table_layout layout[] = {
    ZEL_RECORD_TABLE("clients"),
    ZEL_RECORD_TABLE("nodes"),
    ZEL_RECORD_TABLE("submissions"),
    ZEL_RECORD_TABLE("sources"),
    ZEL_RECORD_TABLE("slots"),
    ZEL_RECORD_TABLE("jobs"),
    ZEL_RECORD_TABLE("tasks"),
    ZEL_RECORD_TABLE("workflows"),
    {"workflow_results", "id text,status integer,ht bigint",
     "CREATE TABLE workflow_results(id text PRIMARY KEY, status integer NOT NULL,"
     " ht bigint NOT NULL)"},
    {"workflow_sequence", "number bigint",
     "CREATE TABLE workflow_sequence(number bigint NOT NULL)"},
    // One row per committed transaction of the writers, kept for the last saves: whether it
    // emptied the tables first (readers then load again) and whether it wrote the results.
    {"zelcapi_saves", "number bigint,whole boolean,results boolean,began timestamp with time zone",
     "CREATE TABLE zelcapi_saves(number bigint PRIMARY KEY, whole boolean NOT NULL DEFAULT false,"
     " results boolean NOT NULL DEFAULT false, began timestamptz NOT NULL DEFAULT now())"},
    // The ids that each kept save removed, by their table.
    {"zelcapi_removed", "save bigint,kind text,id text",
     "CREATE TABLE zelcapi_removed(save bigint NOT NULL, kind text NOT NULL, id text NOT NULL);"
     " CREATE INDEX zelcapi_removed_save ON zelcapi_removed(save)"},
};
#undef ZEL_RECORD_TABLE

// The save's changed records of one kind are copied into this table of the session, then
// upserted from it in one statement; rows vanish at the commit.
constexpr const char* staging =
    "CREATE TEMP TABLE IF NOT EXISTS zelcapi_staging(id text, record jsonb)"
    " ON COMMIT DELETE ROWS";

// COPY data is handed to libpq in pieces of about this size. A piece must be well below the
// socket's send buffer (about 208 KiB for a Unix socket by default): libpq returns once a piece is
// in that buffer, and a larger one made the saver wait for the server to read the previous one,
// so that the two took turns instead of working at once (first save at 70% of a plain COPY's rate
// with 256 KiB, 98% with 64 KiB).
constexpr std::size_t copy_piece = 64 * 1024;

}  // namespace

struct ZELCAPI_POSTGRES_NO_EXPORT postgres_state_db::impl final : store_detail::state_store {
  explicit impl(const std::string& conninfo)
      : state_store(store_detail::json_form::jsonb, save_writes::on_saver_thread),
        writer(conninfo),
        reader(conninfo) {
    postgres_detail::ensure_schema(writer, layout, std::size(layout));
  }

  std::string error_text(const std::string& why) const override { return writer.error_text(why); }

  // Begins a transaction, which takes the next save number; a connection found lost on the way
  // (the server restarted since the last write) is opened again once, as nothing of the
  // transaction was sent yet. The table lock makes the writers' transactions, and so their
  // numbers, commit in order (readers are not held up).
  bool begin_transaction() override {
    const auto begin = [this] {
      writer.ensure_open();
      const result r =
          writer.exec(std::string("BEGIN; ") + staging +
                      "; LOCK TABLE zelcapi_saves IN EXCLUSIVE MODE;"
                      " INSERT INTO zelcapi_saves(number) SELECT coalesce(max(number), 0) + 1"
                      " FROM zelcapi_saves RETURNING number");
      save_number = std::to_string(r.integer(0, 0));
    };
    try {
      begin();
    } catch (...) {
      if (!writer.lost()) throw;
      begin();
    }
    const bool new_session = writer.sessions() != known_session;
    known_session = writer.sessions();
    // Another session may have written the results meanwhile.
    if (new_session) committed_results.reset();
    return new_session;
  }

  // Forgets the saves that readers no longer need and announces this one with the commit.
  void commit_transaction() override {
    end_copy();
    const std::string oldest_dropped =
        std::to_string(std::stoll(save_number) - postgres_detail::kept_saves);
    writer.exec("DELETE FROM zelcapi_removed WHERE save <= " + oldest_dropped +
                "; DELETE FROM zelcapi_saves WHERE number <= " + oldest_dropped + "; NOTIFY " +
                postgres_detail::saves_channel + ", '" + save_number + "'; COMMIT");
    if (written_results) committed_results = std::move(written_results);
    written_results.reset();
  }

  void rollback_transaction() noexcept override {
    copy_kind = -1;
    copy_rows.clear();
    written_results.reset();
    writer.rollback_quietly();
  }

  void empty_tables() override {
    // DELETE, not TRUNCATE: readers keep seeing the previous save until the commit, and then
    // load again, as the save says it emptied the tables.
    std::string all = "DELETE FROM workflow_results; DELETE FROM workflow_sequence";
    for (const char* table : record_tables) all += std::string("; DELETE FROM ") + table;
    writer.exec(all + "; UPDATE zelcapi_saves SET whole = true WHERE number = " + save_number);
    // No results from now on, unless the transaction writes some; not known if it fails.
    committed_results.reset();
    written_results = workflow_result_map();
  }

  // The ids decoded from their row text, the records as jsonb's text (its own key order and
  // spacing, which the digest of the record's tree does not see).
  void scan_records(std::size_t kind, const record_visitor& visit) override {
    end_copy();
    stream_records(writer, kind, visit);
  }

  void scan_ids(std::size_t kind, const id_visitor& visit) override {
    end_copy();
    std::string id;
    writer.stream(for_table("SELECT id FROM @", record_tables[kind]).c_str(), {},
                  [&](const result& r, int row) { visit(decoded_id(kind, r.text(row, 0), id)); });
  }

  // In a save, the record joins the COPY of its kind; outside one it is upserted.
  void write_record(std::size_t kind, std::string_view id, std::string_view text,
                    bool in_save) override {
    if (in_save) {
      start_copy(kind);
      if (copy_direct)
        postgres_detail::append_copy_row(copy_rows,
                                         {postgres_detail::encode_id(id), text, save_number});
      else
        postgres_detail::append_copy_row(copy_rows, {postgres_detail::encode_id(id), text});
      if (copy_rows.size() >= copy_piece) {
        writer.copy_put(copy_rows);
        copy_rows.clear();
      }
      return;
    }
    writer.exec(for_table("INSERT INTO @(id, record, saved_in) VALUES($1, $2, $3) ON CONFLICT (id)"
                          " DO UPDATE SET record = EXCLUDED.record, saved_in = EXCLUDED.saved_in",
                          record_tables[kind])
                    .c_str(),
                {postgres_detail::encode_id(id), std::string(text), save_number});
  }

  void delete_records(std::size_t kind, const std::vector<std::string>& ids) override {
    end_copy();
    std::vector<std::string> texts;
    texts.reserve(ids.size());
    for (const std::string& id : ids) texts.push_back(postgres_detail::encode_id(id));
    // The ids go into the save's list of removals, which readers fetch.
    writer.exec(
        for_table("WITH gone AS (DELETE FROM @ WHERE id = ANY($1::text[]) RETURNING id)"
                  " INSERT INTO zelcapi_removed(save, kind, id) SELECT $2, '@', id FROM gone",
                  record_tables[kind])
            .c_str(),
        {postgres_detail::text_array(texts), save_number});
  }

  // Written again only when they differ from what this session committed last, so that readers
  // fetch them only then.
  void write_results(const workflow_result_map& results) override {
    end_copy();
    if (committed_results && same_results(*committed_results, results)) return;
    written_results = results;
    writer.exec(
        "DELETE FROM workflow_results; UPDATE zelcapi_saves SET results = true"
        " WHERE number = " +
        save_number);
    if (results.empty()) return;
    std::string rows;
    for (const auto& [id, result] : results) {
      // As workflow_result_info::encode writes them.
      postgres_detail::append_copy_row(
          rows,
          {postgres_detail::encode_id(id), std::to_string(static_cast<std::int32_t>(result.status)),
           std::to_string(std::int64_t{result.ht})});
    }
    writer.copy_begin("COPY workflow_results(id, status, ht) FROM STDIN");
    writer.copy_put(rows);
    writer.copy_end();
  }

  void write_sequence_number(std::uint64_t sequence_number) override {
    end_copy();
    writer.exec("DELETE FROM workflow_sequence; INSERT INTO workflow_sequence VALUES(" +
                std::to_string(static_cast<std::int64_t>(sequence_number)) + ")");
  }

  void open_reader() override { reader.ensure_open(); }
  bool reader_lost() const noexcept override { return reader.lost(); }

  void begin_snapshot() override { reader.exec("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY"); }
  void end_snapshot() noexcept override { reader.rollback_quietly(); }

  void read_records(std::size_t kind, const record_visitor& visit) override {
    stream_records(reader, kind, visit);
  }

  bool read_record(std::size_t kind, std::string_view id,
                   const std::function<void(std::string_view)>& visit) override {
    const result r = reader.exec(
        for_table("SELECT record::text FROM @ WHERE id = $1", record_tables[kind]).c_str(),
        {postgres_detail::encode_id(id)});
    if (r.rows() == 0) return false;
    visit(r.text(0, 0));
    return true;
  }

  void read_results(const result_visitor& visit) override {
    std::string id;
    reader.stream("SELECT id, status, ht FROM workflow_results", {}, [&](const result& r, int row) {
      if (!postgres_detail::decode_id(r.text(row, 0), id))
        fail("malformed id in table workflow_results");
      visit(id, r.integer(row, 1), r.integer(row, 2));
    });
  }

  bool read_sequence_number(std::uint64_t& out) override {
    const result r = reader.exec("SELECT number FROM workflow_sequence LIMIT 1");
    if (r.rows() == 0) return false;
    out = static_cast<std::uint64_t>(r.integer(0, 0));
    return true;
  }

  // Each row of a kind's table, read as it arrives.
  void stream_records(connection& db, std::size_t kind, const record_visitor& visit) {
    std::string id;
    db.stream(for_table("SELECT id, record::text FROM @", record_tables[kind]).c_str(), {},
              [&](const result& r, int row) {
                visit(decoded_id(kind, r.text(row, 0), id), r.text(row, 1));
              });
  }

  // The id of a row's text; raises for text that no store writes.
  std::string_view decoded_id(std::size_t kind, std::string_view text, std::string& id) const {
    if (!postgres_detail::decode_id(text, id))
      fail("malformed id in table " + std::string(record_tables[kind]));
    return id;
  }

  // Starts streaming the changed records of `kind`: straight into its table when the table was
  // empty at the save's start (no conflict possible), otherwise into the staging table.
  void start_copy(std::size_t kind) {
    if (copy_kind == static_cast<int>(kind)) return;
    end_copy();
    copy_direct = empty_at_save_start(kind);
    writer.copy_begin(
        copy_direct ? for_table("COPY @(id, record, saved_in) FROM STDIN", record_tables[kind])
                    : std::string("COPY zelcapi_staging(id, record) FROM STDIN"));
    copy_kind = static_cast<int>(kind);
  }

  // Ends the COPY in progress; staged records then replace or join their table's rows.
  void end_copy() {
    if (copy_kind < 0) return;
    const char* table = record_tables[copy_kind];
    copy_kind = -1;
    writer.copy_put(copy_rows);
    copy_rows.clear();
    writer.copy_end();
    if (!copy_direct)
      writer.exec(
          for_table(("INSERT INTO @(id, record, saved_in) SELECT id, record, " + save_number +
                     " FROM zelcapi_staging ON CONFLICT (id) DO UPDATE SET"
                     " record = EXCLUDED.record, saved_in = EXCLUDED.saved_in;"
                     " TRUNCATE zelcapi_staging")
                        .c_str(),
                    table));
  }

  static bool same_results(const workflow_result_map& a, const workflow_result_map& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
      return x.first == y.first && x.second.status == y.second.status && x.second.ht == y.second.ht;
    });
  }

  connection writer;
  std::uint64_t known_session = 0;  // the writer's session that the last transaction ran on
  std::string save_number;          // of the open transaction, as text
  // The results as this session committed them last (none known: write them), and as the open
  // transaction wrote them.
  std::optional<workflow_result_map> committed_results;
  std::optional<workflow_result_map> written_results;
  int copy_kind = -1;        // the kind whose COPY is open, or -1
  bool copy_direct = false;  // whether it goes straight into the kind's table
  std::string copy_rows;     // COPY text not yet handed to libpq

  connection reader;
};

postgres_state_db::postgres_state_db(const std::string& conninfo)
    : impl_(std::make_unique<impl>(conninfo)) {}

postgres_state_db::~postgres_state_db() { impl_->close_writes(); }

const std::string& postgres_state_db::server() const noexcept { return impl_->writer.server(); }

bool postgres_state_db::try_lead() {
  return impl_->holding_write_lock(
      [this] { return impl_->writer.try_lock_session(postgres_detail::state_writer_lock); });
}

bool postgres_state_db::leads() const noexcept { return impl_->writer.holds_session_lock(); }

void postgres_state_db::clear() { impl_->clear(); }

properties_cptr postgres_state_db::load_items(db_item_type type) { return impl_->load_items(type); }

properties_cptr postgres_state_db::load_workflow_results() {
  return impl_->load_workflow_results();
}

std::uint64_t postgres_state_db::load_workflow_sequence_number() {
  return impl_->load_workflow_sequence_number();
}

void postgres_state_db::store_item(db_item_type type, const std::string& id,
                                   const zelcore::properties& record) {
  impl_->store_item(type, id, record);
}

void postgres_state_db::remove_item(db_item_type type, const std::string& id) {
  impl_->remove_item(type, id);
}

void postgres_state_db::store_workflow_results(const workflow_result_map& results) {
  impl_->store_workflow_results(results);
}

void postgres_state_db::store_workflow_sequence_number(std::uint64_t sequence_number) {
  impl_->store_workflow_sequence_number(sequence_number);
}

bool postgres_state_db::load_item(db_item_type type, const std::string& id,
                                  zelcore::properties& out) {
  return impl_->load_item(type, id, out);
}

bool postgres_state_db::has_saved_state() { return impl_->has_saved_state(); }

void postgres_state_db::begin_save() { impl_->begin_save(); }

void postgres_state_db::begin_load() { impl_->begin_load(); }

void postgres_state_db::end_load() noexcept { impl_->end_load(); }

save_counts postgres_state_db::last_save_counts() const { return impl_->last_save_counts(); }

std::size_t postgres_state_db::digest_memory_bytes() const { return impl_->digest_memory_bytes(); }

}  // namespace zelcapi
