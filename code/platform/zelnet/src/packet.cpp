// The packet value type.
#include "zelnet/packet.h"

#include "zelbase/strings.h"

namespace zelnet::zelp {

void packet::set_property(const std::string& name, const zelcore::property_ptr& value) {
  if (value) {
    props_[name] = value;
  } else {
    props_.erase(name);
  }
}

void packet::describe(std::string& out) const {
  out = zelbase::string_with_format("packet type %d name '%s' properties %s", type_, name_.c_str(),
                                    props_.describe().c_str());
}

const std::string& packet::bounce_property_id() {
  static const std::string key("bounce");
  return key;
}

}  // namespace zelnet::zelp
