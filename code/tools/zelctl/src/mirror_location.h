// Where a mirror is kept: an SQLite file, or a PostgreSQL database named by a libpq connection
// string (a "postgresql://" URI or "key=value" pairs). The mirror writes its saves and history
// there; `state --from` and `history --from` read them.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "zelcapi/postgres_db.h"
#include "zelcapi/save_counts.h"
#include "zelcapi/state.h"

namespace zelctl {

struct mirror_location {
  std::unique_ptr<zelcapi::state_db> states;
  std::unique_ptr<zelcapi::history_db> histories;
  // How output and errors name it: the file's path, or the server's host, port, database and
  // user (never a password).
  std::string name;
  // Whether opening it created the file (an SQLite file that did not exist).
  bool created = false;
  // What the state store's last save wrote.
  std::function<zelcapi::save_counts()> last_save_counts;
  // A server's database, which mirrors keep by turns (a standby beside the one that leads):
  // takes the writer locks of both stores when they are free and says whether this mirror
  // leads; raises es::uspec when the server cannot be reached. Null for a file, whose writer
  // lock its store took when it opened (a second mirror is refused there).
  std::function<bool()> try_lead;
  // Whether both stores still hold their locks, as far as they know: a session that ended is
  // found at the next write.
  std::function<bool()> leads;
};

enum class mirror_use {
  write,         // both stores, creating the mirror when missing
  read_states,   // the state store only, which must exist
  read_history,  // the history store only, which must exist
};

// Opens the mirror that `where` names; the stores that `use` leaves out stay null. `flag` names
// the option in errors. Raises failure (exit_usage) for a connection string that holds a
// password, since the process list shows it to every user, and failure (exit_failure) with the
// store's text when the mirror cannot be opened.
mirror_location open_mirror(const std::string& where, const char* flag, mirror_use use);

// Opens a reader of the saves of the mirror's PostgreSQL database that `where` names. Raises
// failure (exit_usage) for a file name or a string with a password, and failure (exit_failure,
// or exit_usage for a string that libpq cannot read) with the store's text when it cannot open.
std::unique_ptr<zelcapi::postgres_save_reader> follow_mirror(const std::string& where,
                                                             const char* flag);

}  // namespace zelctl
