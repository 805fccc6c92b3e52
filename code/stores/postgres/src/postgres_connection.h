// One libpq connection of the PostgreSQL stores: connecting and connecting again after a loss,
// statements with text parameters, COPY streams, and every error raised as zelbase::es::uspec
// with the server's text and the server's name without its password.
#pragma once

#include <libpq-fe.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
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

 private:
  struct clearer {
    void operator()(PGresult* r) const noexcept { PQclear(r); }
  };
  std::unique_ptr<PGresult, clearer> r_;
};

class connection {
 public:
  // Connects to the server that `conninfo` names. Raises es::uspec when the string is malformed
  // or the connection fails, with libpq's text on one line.
  explicit connection(const std::string& conninfo);
  connection(const connection&) = delete;
  connection& operator=(const connection&) = delete;

  // Connects again when the connection was lost; raises as the constructor does.
  void ensure_open();
  // Whether the connection is lost: libpq knows it, or a statement failed without the server's
  // answer or with an error of the connection (SQLSTATE class 08, 57P: shutdown, crash).
  bool lost() const noexcept { return broken_ || PQstatus(conn_.get()) != CONNECTION_OK; }

  // Runs `sql` (one or more statements without parameters) and returns the last result.
  result exec(const std::string& sql);
  // Runs one statement with text parameters $1, $2, ...
  result exec(const char* sql, const std::vector<std::string>& params);
  // Runs `copy_sql` (a COPY ... FROM STDIN) and streams `rows`' text to it.
  void copy_begin(const std::string& copy_sql);
  void copy_put(const std::string& rows);
  void copy_end();
  bool copying() const noexcept { return copying_; }

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
  result _checked(PGresult* r, ExecStatusType expected);

  std::string conninfo_;
  std::string server_;
  std::string password_;  // only to keep it out of error texts
  std::unique_ptr<PGconn, closer> conn_;
  bool copying_ = false;
  mutable bool broken_ = false;
};

// The tree of a stored record; raises es::uspec naming the table and the id when its JSON text
// cannot be read.
zelcore::properties decode_record(const connection& db, const char* table, std::string_view id,
                                  std::string_view json,
                                  store_detail::shared_strings* strings = nullptr);

// Appends one row of COPY's text format: the fields separated by tabs, each escaped.
void append_copy_row(std::string& out, std::initializer_list<std::string_view> fields);

}  // namespace zelcapi::postgres_detail
