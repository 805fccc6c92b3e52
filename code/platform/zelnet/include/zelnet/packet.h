// A packet of the zelp protocol: a type, a name and a property tree. Plain value type.
#pragma once

#include <cstdint>
#include <string>

#include "zelcore/properties.h"
#include "zelnet/export.h"

namespace zelnet::zelp {

class ZELNET_EXPORT packet {
 public:
  // Packet types used by the cluster.
  enum : std::int32_t { type_request = 2, type_notification = 3, type_reply = 4 };

  packet() = default;
  packet(std::int32_t type, std::string name) : type_(type), name_(std::move(name)) {}
  packet(std::int32_t type, std::string name, const zelcore::properties& props)
      : type_(type), name_(std::move(name)), props_(props) {}

  std::int32_t get_type() const noexcept { return type_; }
  const std::string& get_name() const noexcept { return name_; }
  const zelcore::properties& get_properties() const noexcept { return props_; }
  zelcore::properties& get_properties() noexcept { return props_; }
  // Stores `value` under `name` (a null pointer removes the key).
  void set_property(const std::string& name, const zelcore::property_ptr& value);
  // Fills `out` with a readable one-line rendering: type, name and the tree as JSON.
  void describe(std::string& out) const;

  // The key under which a request may carry a nested tree that the peer copies unchanged
  // into its reply: "bounce".
  static const std::string& bounce_property_id();

 private:
  std::int32_t type_ = 0;
  std::string name_;
  zelcore::properties props_;
};

}  // namespace zelnet::zelp
