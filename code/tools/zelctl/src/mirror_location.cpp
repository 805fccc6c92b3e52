#include "mirror_location.h"

#include <sys/stat.h>

#include "options.h"
#include "zelbase/exceptions.h"
#include "zelcapi/sqlite_db.h"

namespace zelctl {

mirror_location open_mirror(const std::string& where, const char* flag, mirror_use use) {
  const bool read_only = use != mirror_use::write;
  const std::string named = std::string(flag) + " '" + where + "'";
  struct stat file {};
  if (read_only && ::stat(where.c_str(), &file) != 0)
    throw failure(exit_failure, "no mirror at " + named + ": no such file");
  try {
    zelcapi::sqlite_options options;
    options.read_only = read_only;
    mirror_location out;
    if (use != mirror_use::read_history) {
      auto states = std::make_unique<zelcapi::sqlite_state_db>(where, options);
      out.last_save_counts = [db = states.get()] { return db->last_save_counts(); };
      out.states = std::move(states);
    }
    if (use != mirror_use::read_states)
      out.histories = std::make_unique<zelcapi::sqlite_history_db>(where, options);
    out.name = where;
    return out;
  } catch (const zelbase::es::base& e) {
    throw failure(exit_failure, "cannot open " + named + ": " + e.message());
  }
}

}  // namespace zelctl
