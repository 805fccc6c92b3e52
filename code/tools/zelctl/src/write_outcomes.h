// The master's outcome of one item of a write request, in the words zelctl prints.
#pragma once

#include <string>

#include "zelcapi/work_client.h"

namespace zelctl {

// "done", "already done", "not found", "not allowed", "access denied (owner NAME)" or "invalid",
// followed by ": " and the master's text when it gave one.
std::string outcome_words(const zelcapi::item_result& r);

}  // namespace zelctl
