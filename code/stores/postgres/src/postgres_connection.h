// One libpq connection of the PostgreSQL stores: connecting and connecting again after a loss,
// statements with text parameters, COPY streams, and every error raised as zelbase::es::uspec
// with the server's text and the server's name without its password.
#pragma once

#include <libpq-fe.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json_record.h"
#include "zelcore/properties.h"

namespace zelcapi::postgres_detail {

// The text of a row id: the id itself when it is UTF-8 without NUL and does not begin with "~",
// otherwise "~x" and the hex of its bytes (PostgreSQL's text holds neither NUL nor bytes of
// another encoding).
std::string encode_id(std::string_view id);
// The id of a row id's text; false for text that encode_id does not write.
bool decode_id(std::string_view text, std::string& id);
// An array literal of texts ('{"a","b"}') for a parameter of type text[].
std::string text_array(const std::vector<std::string>& texts);

// The result of a statement, owning libpq's.
class result {
 public:
  explicit result(PGresult* r) noexcept : r_(r) {}
  int rows() const noexcept { return PQntuples(r_.get()); }
  std::string_view text(int row, int column) const noexcept {
    return {PQgetvalue(r_.get(), row, column),
            static_cast<std::size_t>(PQgetlength(r_.get(), row, column))};
  }
  bool null(int row, int column) const noexcept { return PQgetisnull(r_.get(), row, column); }
  std::int64_t integer(int row, int column) const;
  // A field of the error it holds (PG_DIAG_SQLSTATE, ...), null when there is none.
  const char* error_field(int field) const noexcept { return PQresultErrorField(r_.get(), field); }
  const char* error_message() const noexcept { return PQresultErrorMessage(r_.get()); }

 private:
  struct clearer {
    void operator()(PGresult* r) const noexcept { PQclear(r); }
  };
  std::unique_ptr<PGresult, clearer> r_;
};

class connection {
 public:
  // Connects to the server that `conninfo` names, with a connect time-out of 10 s and TCP
  // keepalives (30 s idle, 3 probes 10 s apart) unless the string sets them (or, for the
  // time-out, PGCONNECT_TIMEOUT does). Raises es::uspec when the string is malformed or the
  // connection fails, with libpq's text on one line.
  explicit connection(const std::string& conninfo);
  connection(const connection&) = delete;
  connection& operator=(const connection&) = delete;

  // Connects again when the connection was lost; raises as the constructor does. A connection
  // that took a session lock (try_lock_session) takes it again on the new session first, and
  // raises "does not lead ..." when another session holds it by then; it then stays refused until
  // try_lock_session succeeds again.
  void ensure_open();
  // Takes the session-level advisory lock `key` when no other session holds it (opening the
  // connection when it was lost); true when this session holds it.
  bool try_lock_session(std::int64_t key);
  // Whether this connection holds the lock that try_lock_session took, as far as it knows: it
  // is false once a new session found the lock held by another, not while the server cannot be
  // reached.
  bool holds_session_lock() const noexcept { return holds_lock_; }
  // How many times the connection was opened: a new number is a new session, which cannot know
  // what other sessions wrote while there was none.
  std::uint64_t sessions() const noexcept { return sessions_; }
  // The value of a connection setting (connect_timeout, keepalives_idle, ...) in effect on the
  // open connection, as libpq reports it; "" when it has none.
  std::string setting(const char* keyword) const;
  // Whether the connection is lost: libpq knows it, or a statement failed without the server's
  // answer or with an error of the connection (SQLSTATE class 08, 57P: shutdown, crash).
  bool lost() const noexcept { return broken_ || PQstatus(conn_.get()) != CONNECTION_OK; }

  // Runs `sql` (one or more statements without parameters) and returns the last result.
  result exec(const std::string& sql);
  // Runs one statement with text parameters $1, $2, ...
  result exec(const char* sql, const std::vector<std::string>& params);
  // Runs one statement with text parameters and calls `visit` with each row of its answer as it
  // arrives (libpq's single-row mode: a result of one row each), so that a table of any size
  // never lies in memory whole. When `visit` raises, the rest of the answer is read and dropped
  // (the connection stays usable) and the exception passes on.
  using row_visitor = std::function<void(const result& answer, int row)>;
  void stream(const char* sql, const std::vector<std::string>& params, const row_visitor& visit);
  // Runs `copy_sql` (a COPY ... FROM STDIN) and streams `rows`' text to it.
  void copy_begin(const std::string& copy_sql);
  void copy_put(const std::string& rows);
  void copy_end();
  bool copying() const noexcept { return copying_; }

  // Waits up to `timeout` for a notification (NOTIFY) of a channel that the session listens to;
  // true when at least one arrived (all that arrived are consumed). Raises, marking the
  // connection lost, when it fails meanwhile.
  bool await_notification(std::chrono::milliseconds timeout);

  // Ends a COPY in progress and rolls back an open transaction, ignoring errors (the caller is
  // already failing).
  void rollback_quietly() noexcept;
  bool in_transaction() const noexcept;
  // Whether the open transaction failed: the server refuses its further statements.
  bool transaction_failed() const noexcept;

  [[noreturn]] void fail(const std::string& why) const;
  // The text of an error of this server: "PostgreSQL store '<server>': <why>", without the
  // password.
  std::string error_text(const std::string& why) const;
  // Raises libpq's last error (the server's text or the connection's failure).
  [[noreturn]] void fail_last() const;
  // The server as error texts name it (see postgres_state_db::server).
  const std::string& server() const noexcept { return server_; }

 private:
  struct closer {
    void operator()(PGconn* c) const noexcept { PQfinish(c); }
  };
  void _connect();
  // pg_try_advisory_lock(key) on the open session.
  bool _take_lock(std::int64_t key);
  result _checked(PGresult* r, ExecStatusType expected);
  // Raises the error that `r` holds, marking the connection lost when the error says so.
  [[noreturn]] void _fail_with(const result& r) const;

  std::string server_;
  // The keywords and values to connect with: the string's, then the defaults it leaves out.
  std::vector<std::pair<std::string, std::string>> settings_;
  std::string password_;  // only to keep it out of error texts
  std::unique_ptr<PGconn, closer> conn_;
  bool copying_ = false;
  mutable bool broken_ = false;
  std::uint64_t sessions_ = 0;
  bool wants_lock_ = false;  // try_lock_session was called: a new session takes the lock first
  std::int64_t lock_key_ = 0;
  // Read by other threads (whether a store still leads) while the writing thread sets it.
  std::atomic<bool> holds_lock_{false};
};

// The tree of a stored record; raises es::uspec naming the table and the id when its JSON text
// cannot be read.
zelcore::properties decode_record(const connection& db, const char* table, std::string_view id,
                                  std::string_view json,
                                  store_detail::shared_strings* strings = nullptr);

// Appends one row of COPY's text format: the fields separated by tabs, each escaped.
void append_copy_row(std::string& out, std::initializer_list<std::string_view> fields);

}  // namespace zelcapi::postgres_detail
