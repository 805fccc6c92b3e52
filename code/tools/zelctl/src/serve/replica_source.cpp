// The link's status as JSON.
#include "serve/replica_source.h"

#include "time_text.h"

namespace zelctl::serve {
namespace {

nlohmann::json time_or_null(std::int64_t ms) {
  if (ms == 0) return nullptr;
  return iso_time_of_ms(ms);
}

}  // namespace

nlohmann::json status_json(const source_status& s) {
  nlohmann::json out = {{"source", s.source},
                        {"connected", s.connected},
                        {"lost", s.lost},
                        {"lost-at", time_or_null(s.lost_ms)},
                        {"attempts", s.attempts},
                        {"last-error", s.last_error},
                        {"next-attempt", time_or_null(s.next_attempt_ms)},
                        {"retrying", s.retrying},
                        {"reconnects", s.reconnects}};
  if (s.source == "mirror") out["save"] = s.save;
  return out;
}

}  // namespace zelctl::serve
