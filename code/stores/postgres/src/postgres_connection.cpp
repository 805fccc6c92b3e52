// Connecting through libpq (one clear line for a bad string, an unreachable server or a refused
// login, never with the password), statements, COPY streams, and the text forms of ids.
#include "postgres_connection.h"

#include <poll.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "zelbase/exceptions.h"

namespace zelcapi::postgres_detail {

namespace {

constexpr const char* source_file = "code\\stores\\postgres\\src\\postgres_connection";

// libpq's texts end with a newline and continue on indented lines: one line, trimmed.
std::string one_line(const char* text) {
  std::string out;
  for (const char* p = text ? text : ""; *p; ++p) {
    if (*p == '\n' || *p == '\t' || *p == '\r') {
      if (!out.empty() && out.back() != ' ') out += ' ';
    } else {
      out += *p;
    }
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out.empty() ? "unknown error" : out;
}

void replace_all(std::string& text, const std::string& what, const std::string& with) {
  if (what.empty()) return;
  for (std::size_t at = text.find(what); at != std::string::npos;
       at = text.find(what, at + with.size()))
    text.replace(at, what.size(), with);
}

// Whether `fragment` stands in `conninfo` as a keyword: at its start or after a space, and
// followed by "=" (spaces allowed), so that it is no value and no part of one.
bool is_keyword_of(const std::string& conninfo, const std::string& fragment) {
  if (fragment.empty()) return false;
  for (std::size_t at = conninfo.find(fragment); at != std::string::npos;
       at = conninfo.find(fragment, at + 1)) {
    if (at > 0 && !std::isspace(static_cast<unsigned char>(conninfo[at - 1]))) continue;
    std::size_t after = at + fragment.size();
    while (after < conninfo.size() && std::isspace(static_cast<unsigned char>(conninfo[after])))
      ++after;
    if (after < conninfo.size() && conninfo[after] == '=') return true;
  }
  return false;
}

bool may_hold_password(const std::string& conninfo) {
  return conninfo.find("password") != std::string::npos ||
         (conninfo.find("://") != std::string::npos && conninfo.find('@') != std::string::npos);
}

// libpq's text of a string that it cannot read quotes a fragment of the string; when the string
// could hold a password, only fragments that are its keywords ("hots" of an invalid option) are
// kept, any other becomes "...".
std::string malformed_text(const std::string& conninfo, const std::string& why) {
  if (!may_hold_password(conninfo)) return why;
  std::string out;
  for (std::size_t at = 0; at < why.size();) {
    const std::size_t open = why.find('"', at);
    const std::size_t close = open == std::string::npos ? open : why.find('"', open + 1);
    if (close == std::string::npos) {
      out += why.substr(at);
      break;
    }
    const std::string fragment = why.substr(open + 1, close - open - 1);
    out += why.substr(at, open - at + 1);
    out += is_keyword_of(conninfo, fragment) ? fragment : "...";
    out += '"';
    at = close + 1;
  }
  return out;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

void ignore_notice(void*, const char*) {}

// A store that leads writes only on the session that holds its lock.
constexpr const char* lost_lead =
    "does not lead: another session holds this database's writer lock (the session that held "
    "it for this store ended, or it never did)";

// The settings that a connection string (or, for the time-out, PGCONNECT_TIMEOUT) does not give
// are these: a connection attempt gives up after 10 s, and an idle connection whose server stops
// answering is found dead after about a minute (30 s idle, then 3 probes 10 s apart).
constexpr std::pair<const char*, const char*> default_settings[] = {
    {"connect_timeout", "10"},     {"keepalives", "1"},       {"keepalives_idle", "30"},
    {"keepalives_interval", "10"}, {"keepalives_count", "3"},
};

}  // namespace

std::string encode_id(std::string_view id) {
  if (!id.empty() && id[0] != '~' && id.find('\0') == std::string_view::npos &&
      store_detail::is_utf8(id))
    return std::string(id);
  static const char digits[] = "0123456789abcdef";
  std::string out = "~x";
  for (const char c : id) {
    out += digits[static_cast<unsigned char>(c) >> 4];
    out += digits[static_cast<unsigned char>(c) & 15];
  }
  return out;
}

bool decode_id(std::string_view text, std::string& id) {
  id.clear();
  if (text.empty() || text[0] != '~') {
    id.assign(text);
    return !text.empty();
  }
  if (text.size() < 2 || text[1] != 'x' || text.size() % 2 != 0) return false;
  for (std::size_t i = 2; i < text.size(); i += 2) {
    const int high = hex_digit(text[i]), low = hex_digit(text[i + 1]);
    if (high < 0 || low < 0) return false;
    id += static_cast<char>(high * 16 + low);
  }
  return true;
}

std::string text_array(const std::vector<std::string>& texts) {
  std::string out = "{";
  for (const std::string& text : texts) {
    if (out.size() > 1) out += ',';
    out += '"';
    for (const char c : text) {
      if (c == '"' || c == '\\') out += '\\';
      out += c;
    }
    out += '"';
  }
  out += '}';
  return out;
}

void append_copy_row(std::string& out, std::initializer_list<std::string_view> fields) {
  bool first = true;
  for (const std::string_view field : fields) {
    if (!first) out += '\t';
    first = false;
    for (const char c : field) {
      switch (c) {
        case '\\': out += "\\\\"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        default: out += c;
      }
    }
  }
  out += '\n';
}

std::int64_t result::integer(int row, int column) const {
  const std::string value(text(row, column));
  return static_cast<std::int64_t>(std::strtoll(value.c_str(), nullptr, 10));
}

zelcore::properties decode_record(const connection& db, const char* table, std::string_view id,
                                  std::string_view json, store_detail::shared_strings* strings) {
  return store_detail::read_stored_record(db, table, id, json, strings);
}

connection::connection(const std::string& conninfo) {
  char* error = nullptr;
  PQconninfoOption* options = PQconninfoParse(conninfo.c_str(), &error);
  if (!options) {
    std::string why = one_line(error ? error : "out of memory");
    PQfreemem(error);
    server_ = "(malformed connection string)";
    fail(malformed_text(conninfo, why));
  }
  for (const char* shown : {"service", "host", "hostaddr", "port", "dbname", "user"}) {
    for (const PQconninfoOption* o = options; o->keyword; ++o) {
      if (std::strcmp(o->keyword, shown) != 0 || !o->val || !*o->val) continue;
      if (!server_.empty()) server_ += ' ';
      server_ += std::string(shown) + "=" + o->val;
    }
  }
  for (const PQconninfoOption* o = options; o->keyword; ++o) {
    if (std::strcmp(o->keyword, "password") == 0 && o->val) password_ = o->val;
    if (o->val) settings_.emplace_back(o->keyword, o->val);
  }
  PQconninfoFree(options);
  if (server_.empty()) server_ = "(libpq defaults)";
  // A server that does not answer, or a link that dies without a word (a host gone, a firewall
  // dropping the session), must not hold a save or a load for the operating system's minutes.
  for (const auto& default_setting : default_settings) {
    const char* keyword = default_setting.first;
    const bool set = std::any_of(settings_.begin(), settings_.end(),
                                 [&](const auto& setting) { return setting.first == keyword; });
    const bool from_environment =
        std::strcmp(keyword, "connect_timeout") == 0 && std::getenv("PGCONNECT_TIMEOUT");
    if (!set && !from_environment) settings_.emplace_back(keyword, default_setting.second);
  }
  _connect();
}

std::string connection::setting(const char* keyword) const {
  std::string value;
  PQconninfoOption* options = PQconninfo(conn_.get());
  for (const PQconninfoOption* o = options; o && o->keyword; ++o) {
    if (std::strcmp(o->keyword, keyword) == 0 && o->val) value = o->val;
  }
  PQconninfoFree(options);
  return value;
}

void connection::_connect() {
  copying_ = false;
  broken_ = false;
  ++sessions_;
  std::vector<const char*> keywords, values;
  for (const auto& [keyword, value] : settings_) {
    keywords.push_back(keyword.c_str());
    values.push_back(value.c_str());
  }
  keywords.push_back(nullptr);
  values.push_back(nullptr);
  conn_.reset(PQconnectdbParams(keywords.data(), values.data(), 0));
  if (!conn_) fail("out of memory");
  if (PQstatus(conn_.get()) != CONNECTION_OK) fail_last();
  // Notices ("relation already exists, skipping") are not errors and go nowhere.
  PQsetNoticeProcessor(conn_.get(), ignore_notice, nullptr);
  if (PQsetClientEncoding(conn_.get(), "UTF8") != 0) fail_last();
}

void connection::ensure_open() {
  if (wants_lock_ && !holds_lock_ && !lost()) fail(lost_lead);
  if (!lost()) return;
  // A server that cannot be reached leaves the lock as it was known: nobody else took it from
  // this store yet, as far as it can tell.
  _connect();
  if (!wants_lock_) return;
  bool taken = false;
  try {
    taken = _take_lock(lock_key_);
  } catch (...) {
    broken_ = true;  // the next attempt opens a session again and takes the lock first
    throw;
  }
  if (!taken) fail(lost_lead);
}

bool connection::try_lock_session(std::int64_t key) {
  if (holds_lock_ && key == lock_key_ && !lost()) return true;
  if (lost()) _connect();
  wants_lock_ = true;
  lock_key_ = key;
  return _take_lock(key);
}

bool connection::_take_lock(std::int64_t key) {
  const result taken = exec("SELECT pg_try_advisory_lock($1)", {std::to_string(key)});
  holds_lock_ = taken.rows() == 1 && taken.text(0, 0) == "t";
  return holds_lock_;
}

result connection::_checked(PGresult* r, ExecStatusType expected) {
  result out(r);
  if (!r) fail_last();
  const ExecStatusType status = PQresultStatus(r);
  if (status != expected && !(expected == PGRES_TUPLES_OK && status == PGRES_COMMAND_OK))
    _fail_with(out);
  return out;
}

void connection::_fail_with(const result& r) const {
  const char* state = r.error_field(PG_DIAG_SQLSTATE);
  if (!state || std::strncmp(state, "08", 2) == 0 || std::strncmp(state, "57P", 3) == 0)
    broken_ = true;
  const char* primary = r.error_field(PG_DIAG_MESSAGE_PRIMARY);
  fail(one_line(primary ? primary : r.error_message()));
}

bool connection::await_notification(std::chrono::milliseconds timeout) {
  const auto consume = [this] {
    bool any = false;
    while (PGnotify* n = PQnotifies(conn_.get())) {
      any = true;
      PQfreemem(n);
    }
    return any;
  };
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (consume()) return true;
    // A server going away sends its reason first and closes the socket after.
    if (PQstatus(conn_.get()) != CONNECTION_OK) fail_last();
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd ready{PQsocket(conn_.get()), POLLIN, 0};
    const int polled = ::poll(&ready, 1, static_cast<int>(std::max<std::int64_t>(0, left.count())));
    if (polled < 0 && errno != EINTR) fail(std::string("poll: ") + std::strerror(errno));
    if (polled == 0) return false;
    if (polled > 0 && !PQconsumeInput(conn_.get())) fail_last();
  }
}

result connection::exec(const std::string& sql) {
  return _checked(PQexec(conn_.get(), sql.c_str()), PGRES_TUPLES_OK);
}

result connection::exec(const char* sql, const std::vector<std::string>& params) {
  std::vector<const char*> values;
  values.reserve(params.size());
  for (const std::string& p : params) values.push_back(p.c_str());
  return _checked(PQexecParams(conn_.get(), sql, static_cast<int>(values.size()), nullptr,
                               values.data(), nullptr, nullptr, 0),
                  PGRES_TUPLES_OK);
}

void connection::stream(const char* sql, const std::vector<std::string>& params,
                        const row_visitor& visit) {
  std::vector<const char*> values;
  values.reserve(params.size());
  for (const std::string& p : params) values.push_back(p.c_str());
  if (!PQsendQueryParams(conn_.get(), sql, static_cast<int>(values.size()), nullptr, values.data(),
                         nullptr, nullptr, 0))
    fail_last();
  // Refused only right after another statement; then the answer comes in one result, which the
  // loop below reads as well.
  PQsetSingleRowMode(conn_.get());
  std::exception_ptr raised;  // by `visit`: the rest of the answer is read and dropped
  std::unique_ptr<result> error;
  while (PGresult* next = PQgetResult(conn_.get())) {
    result answer(next);
    const ExecStatusType status = PQresultStatus(next);
    if (status == PGRES_SINGLE_TUPLE || status == PGRES_TUPLES_OK) {
      try {
        for (int row = 0; !raised && row < answer.rows(); ++row) visit(answer, row);
      } catch (...) {
        raised = std::current_exception();
      }
    } else if (!error) {
      error = std::make_unique<result>(std::move(answer));
    }
  }
  if (raised) std::rethrow_exception(raised);
  if (error) _fail_with(*error);
}

void connection::copy_begin(const std::string& copy_sql) {
  _checked(PQexec(conn_.get(), copy_sql.c_str()), PGRES_COPY_IN);
  copying_ = true;
}

void connection::copy_put(const std::string& rows) {
  if (rows.empty()) return;
  if (PQputCopyData(conn_.get(), rows.data(), static_cast<int>(rows.size())) != 1) fail_last();
}

void connection::copy_end() {
  copying_ = false;
  if (PQputCopyEnd(conn_.get(), nullptr) != 1) fail_last();
  // The COPY's own result, then the end of the command.
  result done = _checked(PQgetResult(conn_.get()), PGRES_COMMAND_OK);
  while (PGresult* more = PQgetResult(conn_.get())) PQclear(more);
}

void connection::rollback_quietly() noexcept {
  if (lost()) return;
  if (copying_) {
    copying_ = false;
    PQputCopyEnd(conn_.get(), "save abandoned");
    while (PGresult* r = PQgetResult(conn_.get())) PQclear(r);
  }
  if (in_transaction()) PQclear(PQexec(conn_.get(), "ROLLBACK"));
}

bool connection::in_transaction() const noexcept {
  const PGTransactionStatusType status = PQtransactionStatus(conn_.get());
  return status == PQTRANS_INTRANS || status == PQTRANS_INERROR || status == PQTRANS_ACTIVE;
}

bool connection::transaction_failed() const noexcept {
  return PQtransactionStatus(conn_.get()) == PQTRANS_INERROR;
}

std::string connection::error_text(const std::string& why) const {
  std::string message = "PostgreSQL store '" + server_ + "': " + why;
  replace_all(message, password_, "***");
  return message;
}

void connection::fail(const std::string& why) const {
  zelbase::es::uspec::raise(source_file, __LINE__, error_text(why));
}

void connection::fail_last() const {
  broken_ = true;
  fail(one_line(conn_ ? PQerrorMessage(conn_.get()) : "out of memory"));
}

}  // namespace zelcapi::postgres_detail
