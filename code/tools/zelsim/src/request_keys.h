// The client keys of write requests: the master remembers, for a while, the answer it gave to a
// request with a key, so that the same request sent again gets that answer and changes nothing.
//
// Threads: used by the nodes' thread only.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "runner.h"
#include "zelcore/properties.h"

namespace zelsim {

class request_keys {
 public:
  // What a key stands for: the request (without its bounce tree) and the answer's fields.
  struct answer {
    std::string name;
    zelcore::properties request;
    zelcore::properties reply;
  };

  // Keys are forgotten `keep_ms` milliseconds of the runner's clock after they were used.
  explicit request_keys(std::uint64_t keep_ms) : keep_ms_(keep_ms) {}

  // The answer stored under `who`'s `key`; null when there is none. Forgets what is due by `now`.
  const answer* find(const identity& who, const std::string& key, std::uint64_t now);
  void remember(const identity& who, const std::string& key, answer a, std::uint64_t now);

 private:
  // Keys are each user's own: an administrator's and a user's of one name are apart too.
  static std::string scoped(const identity& who, const std::string& key);

  std::uint64_t keep_ms_;
  std::map<std::string, answer> answers_;
  std::multimap<std::uint64_t, std::string> forget_;
};

}  // namespace zelsim
