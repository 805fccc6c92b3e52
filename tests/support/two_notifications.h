// Test support: the bytes of two notification frames, for a node to write in one write.
#pragma once

#include <string>

#include "zelbase/encoder_network.h"
#include "zelnet/codec.h"

namespace zeltest {

// "test.first" and "test.second", framed as a node sends them.
inline std::string two_notifications() {
  zelbase::encoder_network out;
  zelnet::zelp::append_packet_frame(
      zelnet::zelp::packet(zelnet::zelp::packet::type_notification, "test.first"), out);
  zelnet::zelp::append_packet_frame(
      zelnet::zelp::packet(zelnet::zelp::packet::type_notification, "test.second"), out);
  return std::string(out.data(), out.size());
}

}  // namespace zeltest
