// Conversion of property trees to nlohmann::json and tolerant JSON printing.
#include "json_output.h"

namespace zelctl {

nlohmann::json to_json(const zelcore::property& p) {
  switch (p.kind()) {
    case zelcore::property::kind_int: return static_cast<const zelcore::property_int&>(p).value();
    case zelcore::property::kind_bool: return static_cast<const zelcore::property_bool&>(p).value();
    case zelcore::property::kind_string:
      return static_cast<const zelcore::property_string&>(p).value();
    case zelcore::property::kind_list: {
      nlohmann::json array = nlohmann::json::array();
      for (const auto& element : static_cast<const zelcore::property_list&>(p).value()) {
        array.push_back(to_json(element));
      }
      return array;
    }
    case zelcore::property::kind_properties: {
      nlohmann::json object = nlohmann::json::object();
      for (const auto& [key, child] : static_cast<const zelcore::properties&>(p)) {
        if (child) object[key] = to_json(*child);
      }
      return object;
    }
  }
  return nullptr;
}

nlohmann::json to_json(const zelcore::property_ptr& p) { return p ? to_json(*p) : nullptr; }

std::string json_text(const nlohmann::json& value, bool pretty) {
  return value.dump(pretty ? 2 : -1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void print_json(const nlohmann::json& value, bool pretty, std::FILE* out) {
  const std::string text = json_text(value, pretty);
  std::fwrite(text.data(), 1, text.size(), out);
  std::fputc('\n', out);
  std::fflush(out);
}

}  // namespace zelctl
