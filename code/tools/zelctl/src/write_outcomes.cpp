// Outcomes of write requests as zelctl prints them.
#include "write_outcomes.h"

namespace zelctl {

std::string outcome_words(const zelcapi::item_result& r) {
  std::string words;
  switch (r.outcome) {
    case zelcapi::write_outcome::done: words = "done"; break;
    case zelcapi::write_outcome::already_done: words = "already done"; break;
    case zelcapi::write_outcome::not_found: words = "not found"; break;
    case zelcapi::write_outcome::not_allowed: words = "not allowed"; break;
    case zelcapi::write_outcome::access_denied:
      words = r.owner.empty() ? "access denied" : "access denied (owner " + r.owner + ")";
      break;
    case zelcapi::write_outcome::invalid: words = "invalid"; break;
  }
  if (!r.text.empty()) words += ": " + r.text;
  return words;
}

}  // namespace zelctl
