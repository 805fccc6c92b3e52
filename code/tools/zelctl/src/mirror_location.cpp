#include "mirror_location.h"

#include <libpq-fe.h>
#include <sys/stat.h>

#include "options.h"
#include "zelbase/exceptions.h"
#include "zelcapi/postgres_db.h"
#include "zelcapi/sqlite_db.h"

namespace zelctl {
namespace {

// What libpq reads from a connection string: the keywords it sets. Empty when `where` is not
// one (a path such as "mirror.sqlite" is not: it has no "keyword=value").
struct conninfo_keywords {
  bool parsed = false;
  bool has_password = false;
};

conninfo_keywords parse_conninfo(const std::string& where) {
  conninfo_keywords out;
  const bool uri = where.rfind("postgresql://", 0) == 0 || where.rfind("postgres://", 0) == 0;
  if (!uri && where.find('=') == std::string::npos) return out;
  char* error = nullptr;
  PQconninfoOption* options = PQconninfoParse(where.c_str(), &error);
  if (error) PQfreemem(error);
  if (!options) return out;
  out.parsed = true;
  for (const PQconninfoOption* o = options; o->keyword; ++o) {
    if (std::string(o->keyword) == "password" && o->val && *o->val) out.has_password = true;
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
  if (use != mirror_use::read_history) {
    auto states = std::make_unique<zelcapi::postgres_state_db>(where);
    out.name = states->server();
    open_states(out, std::move(states));
  }
  if (use != mirror_use::read_states) {
    auto histories = std::make_unique<zelcapi::postgres_history_db>(where);
    out.name = histories->server();
    out.histories = std::move(histories);
  }
  return out;
}

mirror_location open_file(const std::string& where, mirror_use use) {
  zelcapi::sqlite_options options;
  options.read_only = use != mirror_use::write;
  mirror_location out;
  out.name = where;
  if (use != mirror_use::read_history)
    open_states(out, std::make_unique<zelcapi::sqlite_state_db>(where, options));
  if (use != mirror_use::read_states)
    out.histories = std::make_unique<zelcapi::sqlite_history_db>(where, options);
  return out;
}

}  // namespace

mirror_location open_mirror(const std::string& where, const char* flag, mirror_use use) {
  const conninfo_keywords server = parse_conninfo(where);
  if (server.has_password) {
    // Said without the string: it holds the password.
    throw failure(exit_usage, std::string(flag) +
                                  " holds a password, which every user of this machine can read "
                                  "in the process list: put it in a password file (PGPASSFILE "
                                  "or ~/.pgpass) or a service file instead");
  }
  const std::string named = std::string(flag) + " '" + where + "'";
  struct stat file {};
  if (!server.parsed && use != mirror_use::write && ::stat(where.c_str(), &file) != 0)
    throw failure(exit_failure, "no mirror at " + named + ": no such file");
  try {
    return server.parsed ? open_server(where, use) : open_file(where, use);
  } catch (const zelbase::es::base& e) {
    throw failure(exit_failure, "cannot open " + named + ": " + e.message());
  }
}

}  // namespace zelctl
