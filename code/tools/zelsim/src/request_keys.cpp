// The master's memory of client keys.
#include "request_keys.h"

namespace zelsim {

std::string request_keys::scoped(const identity& who, const std::string& key) {
  return std::string(who.admin ? "admin " : "user ") + std::to_string(who.user.size()) + " " +
         who.user + key;
}

const request_keys::answer* request_keys::find(const identity& who, const std::string& key,
                                               std::uint64_t now) {
  while (!forget_.empty() && forget_.begin()->first <= now) {
    answers_.erase(forget_.begin()->second);
    forget_.erase(forget_.begin());
  }
  const auto found = answers_.find(scoped(who, key));
  return found == answers_.end() ? nullptr : &found->second;
}

void request_keys::remember(const identity& who, const std::string& key, answer a,
                            std::uint64_t now) {
  const std::string scoped_key = scoped(who, key);
  answers_[scoped_key] = std::move(a);
  forget_.emplace(now + keep_ms_, scoped_key);
}

}  // namespace zelsim
