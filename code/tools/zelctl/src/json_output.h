// Property trees as JSON, and the one way zelctl prints JSON: text that is not valid UTF-8 is
// printed with U+FFFD in place of the bad bytes, never an exception.
#pragma once

#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

#include "zelcore/properties.h"

namespace zelctl {

// int -> number, bool -> boolean, string -> string, list -> array, properties -> object (a null
// child -> null).
nlohmann::json to_json(const zelcore::property& p);
nlohmann::json to_json(const zelcore::property_ptr& p);

// The JSON text: indented by 2 when `pretty`, else on one line.
std::string json_text(const nlohmann::json& value, bool pretty);

// Writes json_text and a newline to `out` and flushes it.
void print_json(const nlohmann::json& value, bool pretty, std::FILE* out = stdout);

}  // namespace zelctl
