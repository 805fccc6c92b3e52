// Following a state store's saves: the last save whole, then the rows that later saves wrote
// (by the save number each row carries) and the ids they removed, each read in one snapshot.
#include <algorithm>
#include <string>
#include <vector>

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

// The schema version from which saves carry numbers.
constexpr std::int64_t numbered_saves_version = 2;

// Where the saves after the reader's stand, as the snapshot sees them.
struct save_range {
  std::uint64_t last = 0;    // the last committed save
  std::uint64_t oldest = 0;  // the oldest save still kept
  bool whole = false;        // one after the reader's emptied the tables
  bool results = false;      // one after the reader's wrote the results
};

}  // namespace

struct ZELCAPI_POSTGRES_NO_EXPORT postgres_save_reader::impl {
  explicit impl(const std::string& conninfo) : db(conninfo) { check_schema(); }

  void check_schema() {
    const result tables = db.exec(
        "SELECT count(*) FROM information_schema.tables WHERE table_schema ="
        " current_schema() AND table_name IN ('zelcapi_meta', 'jobs')");
    if (tables.integer(0, 0) != 2) db.fail("the database holds no zelcapi state store");
    const result r = db.exec("SELECT value FROM zelcapi_meta WHERE key = 'schema_version'");
    if (r.rows() == 0) db.fail("table zelcapi_meta holds no schema_version: not a zelcapi store");
    const std::int64_t version = r.integer(0, 0);
    if (version < numbered_saves_version)
      db.fail("schema version " + std::to_string(version) +
              " numbers no saves: a mirror of this version must open the database first");
    if (version > numbered_saves_version)
      db.fail("schema version " + std::to_string(version) + " is newer than version " +
              std::to_string(numbered_saves_version) + " that this library reads");
  }

  save_range range_after(std::uint64_t since) {
    const result r = db.exec(
        "SELECT coalesce(max(number), 0), coalesce(min(number), 0),"
        " coalesce(bool_or(whole) FILTER (WHERE number > $1), false),"
        " coalesce(bool_or(results) FILTER (WHERE number > $1), false) FROM zelcapi_saves",
        {std::to_string(since)});
    save_range out;
    out.last = static_cast<std::uint64_t>(r.integer(0, 0));
    out.oldest = static_cast<std::uint64_t>(r.integer(0, 1));
    out.whole = r.text(0, 2) == "t";
    out.results = r.text(0, 3) == "t";
    return out;
  }

  // The rows of a kind's table that `where` selects, decoded.
  properties_cptr read_records(std::size_t kind, const char* where,
                               const std::vector<std::string>& params,
                               store_detail::shared_strings& strings) {
    zelcore::properties::container children;
    std::string id;
    db.stream(for_table(where, record_tables[kind]).c_str(), params, [&](const result& r, int row) {
      if (!postgres_detail::decode_id(r.text(row, 0), id))
        db.fail("malformed id in table " + std::string(record_tables[kind]));
      children.emplace_back(
          id, zelcore::property_ptr(new zelcore::properties(postgres_detail::decode_record(
                  db, record_tables[kind], id, r.text(row, 1), &strings))));
    });
    return properties_cptr(new zelcore::properties(std::move(children)));
  }

  // The ids that the saves after `since` removed, by kind, less those written again since.
  void read_removed(std::uint64_t since, save_changes& out) {
    std::string id;
    db.stream(
        "SELECT DISTINCT kind, id FROM zelcapi_removed WHERE save > $1", {std::to_string(since)},
        [&](const result& r, int row) {
          const std::string_view table = r.text(row, 0);
          const auto* kind = std::find(std::begin(record_tables), std::end(record_tables), table);
          if (kind == std::end(record_tables) || !postgres_detail::decode_id(r.text(row, 1), id))
            db.fail("malformed row in table zelcapi_removed");
          const auto k = static_cast<std::size_t>(kind - std::begin(record_tables));
          if (!out.items[k]->is_present(id)) out.removed[k].push_back(id);
        });
  }

  properties_cptr read_results() {
    zelcore::properties::container children;
    std::string id;
    db.stream("SELECT id, status, ht FROM workflow_results", {}, [&](const result& r, int row) {
      if (!postgres_detail::decode_id(r.text(row, 0), id))
        db.fail("malformed id in table workflow_results");
      // As workflow_result_info::encode writes them.
      zelcore::properties encoded{{"ht", zelcore::make_int(r.integer(row, 2))},
                                  {"st", zelcore::make_int(r.integer(row, 1))}};
      children.emplace_back(id, zelcore::property_ptr(new zelcore::properties(std::move(encoded))));
    });
    return properties_cptr(new zelcore::properties(std::move(children)));
  }

  save_changes read(std::uint64_t since) {
    save_changes out;
    const save_range range = range_after(since);
    out.save = range.last;
    // Whole: nothing held, a save whose removals are gone, or a database that went back.
    out.whole = since == 0 || since > range.last || since + 1 < range.oldest || range.whole;
    store_detail::shared_strings strings;
    for (std::size_t kind = 0; kind < out.items.size(); ++kind) {
      out.items[kind] =
          out.whole ? read_records(kind, "SELECT id, record::text FROM @", {}, strings)
                    : read_records(kind, "SELECT id, record::text FROM @ WHERE saved_in > $1",
                                   {std::to_string(since)}, strings);
    }
    if (!out.whole) read_removed(since, out);
    if (out.whole || range.results) out.workflow_results = read_results();
    const result number = db.exec("SELECT number FROM workflow_sequence LIMIT 1");
    if (number.rows() > 0)
      out.workflow_sequence_number = static_cast<std::uint64_t>(number.integer(0, 0));
    return out;
  }

  // Opens the connection again when it was lost, listening again on a new session.
  void ensure_listening() {
    db.ensure_open();
    if (db.sessions() == listening_session) return;
    db.exec(std::string("LISTEN ") + postgres_detail::saves_channel);
    listening_session = db.sessions();
  }

  connection db;
  std::uint64_t listening_session = 0;
};

postgres_save_reader::postgres_save_reader(const std::string& conninfo)
    : impl_(std::make_unique<impl>(conninfo)) {
  impl_->ensure_listening();
}

postgres_save_reader::~postgres_save_reader() = default;

save_changes postgres_save_reader::read_since(std::uint64_t since) {
  connection& db = impl_->db;
  impl_->ensure_listening();
  db.exec("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
  try {
    save_changes out = impl_->read(since);
    db.exec("COMMIT");
    return out;
  } catch (...) {
    db.rollback_quietly();
    throw;
  }
}

bool postgres_save_reader::wait_for_save(std::chrono::milliseconds timeout) {
  const std::uint64_t session = impl_->listening_session;
  impl_->ensure_listening();
  if (impl_->listening_session != session) return true;
  return impl_->db.await_notification(timeout);
}

const std::string& postgres_save_reader::server() const noexcept { return impl_->db.server(); }

}  // namespace zelcapi
