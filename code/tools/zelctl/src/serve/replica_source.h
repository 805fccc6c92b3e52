// Where zelctl serve's replica comes from, and how that link stands: what the overview and the
// change stream tell the pages. The cluster itself is one source (cluster_link); each source
// keeps its own status and says when it changes.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace zelctl::serve {

struct source_status {
  bool connected = true;
  // "cluster", or "mirror" for a mirror's database, whose save `save` the replica holds.
  std::string source = "cluster";
  std::uint64_t save = 0;
  std::string master;   // the master's id ("" for a mirror's database)
  std::string address;  // where the replica comes from ("host:port", or the database)
  // Since the link went: why, when (milliseconds since 1970; 0 while connected), the attempts
  // to get it back that failed, the last one's error and when the next one starts (0: none).
  std::string lost;
  std::int64_t lost_ms = 0;
  std::uint64_t attempts = 0;
  std::string last_error;
  std::int64_t next_attempt_ms = 0;
  // False once the source gave up (a refused login): the replica stays as it was.
  bool retrying = true;
  // How many times the link came back.
  std::uint64_t reconnects = 0;
};

class replica_source {
 public:
  virtual ~replica_source() = default;
  virtual const source_status& status() const = 0;
};

// The status as /api/summary and the change stream's "cluster" event carry it
// (docs/http-api.md): "source", "connected", "lost", "lost-at", "attempts", "last-error",
// "next-attempt", "retrying", "reconnects", and a mirror's "save".
nlohmann::json status_json(const source_status& s);

}  // namespace zelctl::serve
