#include "mirror_location.h"

#include <libpq-fe.h>
#include <sys/stat.h>

#include <cctype>

#include "options.h"
#include "zelbase/exceptions.h"
#include "zelcapi/postgres_db.h"
#include "zelcapi/sqlite_db.h"

namespace zelctl {
namespace {

// Whether `where` names a PostgreSQL server rather than an SQLite file: a "postgresql://" or
// "postgres://" URI, or key=value pairs, i.e. it begins (after spaces) with a keyword of
// letters, digits and underscores followed by "=" (spaces allowed around it). Anything else is
// a file: "mirror.sqlite", "/var/lib/zel/mirror.db", "./a=b.db".
bool names_server(const std::string& where) {
  if (where.rfind("postgresql://", 0) == 0 || where.rfind("postgres://", 0) == 0) return true;
  std::size_t at = where.find_first_not_of(" \t\n\r\f\v");
  const std::size_t keyword = at;
  while (at < where.size() &&
         (std::isalnum(static_cast<unsigned char>(where[at])) || where[at] == '_'))
    ++at;
  if (at == keyword || at == std::string::npos) return false;
  at = where.find_first_not_of(" \t\n\r\f\v", at);
  return at != std::string::npos && where[at] == '=';
}

// The scheme of a URI ("postgresq" of "postgresq://u:pw@host/db"), or "" for text that is none.
std::string uri_scheme(const std::string& where) {
  const std::size_t end = where.find("://");
  if (end == std::string::npos || end == 0 || !std::isalpha(static_cast<unsigned char>(where[0])))
    return "";
  for (std::size_t at = 1; at < end; ++at) {
    const char c = where[at];
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') return "";
  }
  return where.substr(0, end);
}

// A URI of another scheme is a mistyped server, not a file to create, and may hold a password:
// refused naming its scheme only.
void refuse_other_scheme(const std::string& where, const char* flag) {
  const std::string scheme = uri_scheme(where);
  if (scheme.empty() || names_server(where)) return;
  throw failure(exit_usage, std::string(flag) + ": \"" + scheme +
                                "://\" names no store: a PostgreSQL database is "
                                "\"postgresql://...\" or \"postgres://...\", an SQLite file a "
                                "path (written \"./...\" when it holds \"://\")");
}

// What libpq reads in a connection string: whether it can, and whether the string sets a
// password (or a client key's passphrase).
struct conninfo_facts {
  bool readable = false;
  bool has_password = false;
};

conninfo_facts read_conninfo(const std::string& where) {
  char* error = nullptr;
  PQconninfoOption* options = PQconninfoParse(where.c_str(), &error);
  if (error) PQfreemem(error);
  conninfo_facts out;
  out.readable = options != nullptr;
  for (const PQconninfoOption* o = options; o && o->keyword; ++o) {
    const std::string keyword = o->keyword;
    if ((keyword == "password" || keyword == "sslpassword") && o->val && *o->val)
      out.has_password = true;
  }
  PQconninfoFree(options);
  return out;
}

template <class Store>
void open_states(mirror_location& out, std::unique_ptr<Store> states) {
  out.last_save_counts = [db = states.get()] { return db->last_save_counts(); };
  out.states = std::move(states);
}

mirror_location open_server(const std::string& where, mirror_use use) {
  mirror_location out;
  zelcapi::postgres_state_db* states_db = nullptr;
  zelcapi::postgres_history_db* histories_db = nullptr;
  if (use != mirror_use::read_history) {
    auto states = std::make_unique<zelcapi::postgres_state_db>(where);
    out.name = states->server();
    states_db = states.get();
    open_states(out, std::move(states));
  }
  if (use != mirror_use::read_states) {
    auto histories = std::make_unique<zelcapi::postgres_history_db>(where);
    out.name = histories->server();
    histories_db = histories.get();
    out.histories = std::move(histories);
  }
  if (use == mirror_use::write) {
    // The state's lock first: a standby that holds it waits for the history's, which a leader
    // gives up when it ends on finding that its state session no longer leads.
    out.try_lead = [states_db, histories_db] {
      return states_db->try_lead() && histories_db->try_lead();
    };
    out.leads = [states_db, histories_db] { return states_db->leads() && histories_db->leads(); };
  }
  return out;
}

mirror_location open_file(const std::string& where, const std::string& named, mirror_use use) {
  zelcapi::sqlite_options options;
  options.read_only = use != mirror_use::write;
  mirror_location out;
  out.name = where;
  if (use != mirror_use::read_history) {
    auto states = std::make_unique<zelcapi::sqlite_state_db>(where, options);
    // A file has one machine: a second mirror there is refused rather than standing by.
    if (use == mirror_use::write && !states->try_lead()) {
      throw failure(exit_failure, "cannot open " + named + ": another mirror writes it (it holds " +
                                      where + "-lock): one mirror a file");
    }
    open_states(out, std::move(states));
  }
  if (use != mirror_use::read_states)
    out.histories = std::make_unique<zelcapi::sqlite_history_db>(where, options);
  return out;
}

// The string is never repeated: it may hold a password. The store's errors name the server by
// host, port, database and user only.
conninfo_facts checked_server(const std::string& where, const char* flag) {
  const conninfo_facts server = read_conninfo(where);
  if (server.has_password) {
    throw failure(exit_usage, std::string(flag) +
                                  " holds a password, which every user of this machine can "
                                  "read in the process list: put it in a password file "
                                  "(PGPASSFILE or ~/.pgpass) or a service file instead");
  }
  return server;
}

// A store's error on opening: for a string that libpq cannot read, a usage error with libpq's
// own text.
failure open_failure(const conninfo_facts& server, const char* flag, const zelbase::es::base& e) {
  return failure(server.readable ? exit_failure : exit_usage,
                 "cannot open " + std::string(flag) + ": " + e.message());
}

}  // namespace

mirror_location open_mirror(const std::string& where, const char* flag, mirror_use use) {
  refuse_other_scheme(where, flag);
  if (names_server(where)) {
    const conninfo_facts server = checked_server(where, flag);
    try {
      return open_server(where, use);
    } catch (const zelbase::es::base& e) {
      throw open_failure(server, flag, e);
    }
  }
  const std::string named = std::string(flag) + " '" + where + "'";
  struct stat file {};
  const bool exists = ::stat(where.c_str(), &file) == 0;
  if (use != mirror_use::write && !exists)
    throw failure(exit_failure, "no mirror at " + named + ": no such file");
  try {
    mirror_location out = open_file(where, named, use);
    out.created = !exists;
    return out;
  } catch (const zelbase::es::base& e) {
    throw failure(exit_failure, "cannot open " + named + ": " + e.message());
  }
}

std::unique_ptr<zelcapi::postgres_save_reader> follow_mirror(const std::string& where,
                                                             const char* flag) {
  refuse_other_scheme(where, flag);
  if (!names_server(where)) {
    throw failure(exit_usage, std::string(flag) + " '" + where +
                                  "' is no PostgreSQL connection string: it follows the saves "
                                  "of a mirror's PostgreSQL database (\"postgresql://...\")");
  }
  const conninfo_facts server = checked_server(where, flag);
  try {
    return std::make_unique<zelcapi::postgres_save_reader>(where);
  } catch (const zelbase::es::base& e) {
    throw open_failure(server, flag, e);
  }
}

}  // namespace zelctl
