// Internal: JSON text helper shared by the property kinds.
#pragma once

#include <string>

namespace zelcore::detail {

// Appends `text` as a quoted, escaped JSON string.
void append_json_string(std::string& out, const std::string& text);

}  // namespace zelcore::detail
