// Opening a store file (schema checks, WAL, durability, size bound), prepared statements, and
// SQLite's errors turned into es::uspec with the file's path.
#include "sqlite_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "json_record.h"
#include "zelbase/exceptions.h"

namespace zelcapi::sqlite_detail {

namespace {

constexpr const char* source_file = "code\\stores\\sqlite\\src\\sqlite_file";

std::string text_of(const std::string& path, const std::string& why) {
  return "SQLite store '" + path + "': " + why;
}

[[noreturn]] void raise(const std::string& path, const std::string& why) {
  zelbase::es::uspec::raise(source_file, __LINE__, text_of(path, why));
}

}  // namespace

bool writer_lock::try_take() {
  if (fd_ >= 0) return true;
  for (;;) {
    const int fd = ::open(lock_path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) raise(path_, "unable to open database file: " + std::string(std::strerror(errno)));
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      const int error = errno;
      ::close(fd);
      if (error == EWOULDBLOCK) return false;
      raise(path_, "cannot lock " + lock_path_ + ": " + std::strerror(error));
    }
    // Locked, unless its holder removed the file between our open and our lock: then the lock
    // is on a file that nobody else will open, and the path's new file is the one to lock.
    struct stat held {
    }, named{};
    if (::fstat(fd, &held) == 0 && ::stat(lock_path_.c_str(), &named) == 0 &&
        held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
      fd_ = fd;
      return true;
    }
    ::close(fd);
  }
}

void writer_lock::take() {
  if (!try_take())
    raise(path_, "another writer has it open (a second mirror?): one writes at a time");
}

writer_lock::~writer_lock() {
  if (fd_ < 0) return;
  ::unlink(lock_path_.c_str());
  ::close(fd_);
}

zelcore::properties decode_record(const connection& db, const char* table, std::string_view id,
                                  std::string_view json, store_detail::shared_strings* strings) {
  return store_detail::read_stored_record(db, table, id, json, strings);
}

connection::connection(const std::string& path, const sqlite_options& options, const char* schema)
    : path_(path) {
  const int flags =
      options.read_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  db_.reset(db);
  if (rc != SQLITE_OK) raise(path_, db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
  sqlite3_busy_timeout(db, static_cast<int>(options.busy_timeout_ms));
  _check_schema(schema != nullptr && !options.read_only);
  if (schema && !options.read_only) {
    exec(options.durability == sqlite_durability::full ? "PRAGMA synchronous=FULL"
                                                       : "PRAGMA synchronous=NORMAL");
    exec("BEGIN IMMEDIATE");
    try {
      exec(schema);
      exec(("PRAGMA application_id=" + std::to_string(application_id)).c_str());
      exec(("PRAGMA user_version=" + std::to_string(schema_version)).c_str());
      exec("COMMIT");
    } catch (...) {
      rollback_quietly();
      throw;
    }
  }
  if (!schema) exec("PRAGMA query_only=1");
  if (options.max_size_bytes) {
    const std::int64_t page = _query_int("PRAGMA page_size");
    const std::uint64_t pages = (options.max_size_bytes + page - 1) / page;
    exec(("PRAGMA max_page_count=" + std::to_string(pages)).c_str());
  }
}

void connection::_check_schema(bool create) {
  const std::int64_t app = _query_int("PRAGMA application_id");
  if (app == application_id) {
    const std::int64_t version = _query_int("PRAGMA user_version");
    if (version > schema_version)
      fail("schema version " + std::to_string(version) + " is newer than version " +
           std::to_string(schema_version) + " that this library reads");
  } else if (app != 0) {
    fail("not a zelcapi store: the file belongs to another application (application_id " +
         std::to_string(app) + ")");
  } else if (_query_int("SELECT count(*) FROM sqlite_master") != 0) {
    fail("not a zelcapi store: the file holds tables of another application");
  } else if (!create) {
    fail("not a zelcapi store: the file is empty");
  }
  if (create) {
    // WAL is a property of the file; it also lets loads read while a save is written.
    statement mode(*this, "PRAGMA journal_mode=WAL");
    reset_on_exit done(mode);
    if (!mode.step() || mode.text(0) != "wal")
      fail("cannot use write-ahead logging: " + std::string(sqlite3_errmsg(handle())));
  }
}

std::int64_t connection::_query_int(const char* sql) {
  statement s(*this, sql);
  reset_on_exit done(s);
  if (!s.step()) fail(std::string("no answer to ") + sql);
  return s.integer(0);
}

void connection::exec(const char* sql) {
  if (sqlite3_exec(handle(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

void connection::rollback_quietly() noexcept {
  if (in_transaction()) sqlite3_exec(handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

bool connection::in_transaction() const noexcept { return !sqlite3_get_autocommit(handle()); }

void connection::fail() const { raise(path_, sqlite3_errmsg(handle())); }

void connection::fail(const std::string& why) const { raise(path_, why); }

std::string connection::error_text(const std::string& why) const { return text_of(path_, why); }

statement::statement(connection& db, const char* sql) : db_(&db) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v3(db.handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &raw, nullptr) !=
      SQLITE_OK)
    db.fail();
  stmt_.reset(raw);
}

void statement::bind(int index, std::string_view text) {
  if (sqlite3_bind_text(stmt_.get(), index, text.data(), static_cast<int>(text.size()),
                        SQLITE_STATIC) != SQLITE_OK)
    db_->fail();
}

void statement::bind(int index, std::int64_t value) {
  if (sqlite3_bind_int64(stmt_.get(), index, value) != SQLITE_OK) db_->fail();
}

bool statement::step() {
  const int rc = sqlite3_step(stmt_.get());
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  const std::string message = sqlite3_errmsg(db_->handle());
  reset();
  db_->fail(message);
}

void statement::run() {
  reset_on_exit done(*this);
  while (step()) {
  }
}

std::string_view statement::text(int column) const {
  const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(stmt_.get(), column));
  return data ? std::string_view(data, sqlite3_column_bytes(stmt_.get(), column))
              : std::string_view();
}

std::int64_t statement::integer(int column) const {
  return sqlite3_column_int64(stmt_.get(), column);
}

void statement::reset() noexcept {
  sqlite3_reset(stmt_.get());
  sqlite3_clear_bindings(stmt_.get());
}

}  // namespace zelcapi::sqlite_detail
