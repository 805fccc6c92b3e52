// Fuzz target: arbitrary packets from the cluster handed to a state connection's packet handling,
// on a replica loaded with a small snapshot. No input may crash it, leave a sanitizer report or
// raise out of it, and the replica must still encode as a snapshot afterwards.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zelbase/exceptions.h"
#include "zelcapi/state_connection.h"
#include "zelcapi/state_connection_samples.h"
#include "zelcore/report.h"
#include "zelnet/codec.h"

namespace {

using zelnet::zelp::packet;

// The packet handling of a state connection, reached without a socket.
class fed_state_connection : public zelcapi::state_connection {
 public:
  using state_connection::sc_handle;
  using state_connection::state_connection;
};

const char* const names[] = {
    "cluster.api.state.update-item",
    "cluster.api.state.set-item",
    "cluster.api.state.remove-item",
    "cluster.api.state.erase-property-ref",
    "cluster.api.state.historize-item",
    "cluster.api.state.update-workflow-result",
    "cluster.api.state.remove-workflow-result",
    "cluster.api.state.add-workflow",
    "cluster.api.state.remove-workflow",
    "cluster.api.state.update-workflow",
    "cluster.api.state.request",
    "cluster.api.history.request",
    "cluster.api.state.x",
    "other",
};
const char* const keys[] = {
    "item-type",          "state-id", "state",  "property-ref", "result", "command",
    "workflow",           "history",  "bounce", "st",           "ht",     "action",
    "history-request-id", "a"};
const char* const texts[] = {
    "j1",           "n1", "WOFL-1", "/a", "/b/c", "add-workflow", "remove-workflow",
    "set-priority", "",   "a/b",    "~2"};

// Reads the bytes of a fuzz input one at a time; zeros once they run out.
struct byte_reader {
  const std::uint8_t* data;
  std::size_t size;
  std::size_t at = 0;
  std::uint8_t next() { return at < size ? data[at++] : 0; }
  bool done() const { return at >= size; }
};

template <std::size_t N>
const char* pick(const char* const (&table)[N], byte_reader& in) {
  return table[in.next() % N];
}

// A tree of the keys the handling reads, with values of every kind, nested up to `depth`.
zelcore::properties build_tree(byte_reader& in, int depth) {
  zelcore::properties tree;
  const int count = in.next() % 6;
  for (int i = 0; i < count && !in.done(); ++i) {
    const std::string key = pick(keys, in);
    switch (in.next() % 6) {
      case 0: tree.set_int_value(key, static_cast<std::int8_t>(in.next())); break;
      case 1: tree.set_string_value(key, pick(texts, in)); break;
      case 2: tree.set_bool_value(key, in.next() & 1); break;
      case 3: tree[key] = zelcore::property_ptr(new zelcore::property_list()); break;
      default:
        if (depth > 0) tree.set_properties_value(key, build_tree(in, depth - 1));
        break;
    }
  }
  return tree;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = [] {
    zelcore::set_report_sink([](const zelcore::report_record&) {});
    zelcore::ds::set_print_sink([](const std::string&, const std::string&) {});
    return true;
  }();
  (void)quiet;
  static zelcore::plugin_db plugins;
  zelcapi::state_handler handler;
  fed_state_connection connection(&handler, 60, &plugins);
  packet out;
  zelcore::properties snapshot_reply;
  snapshot_reply.set_properties_value("state", zeltest::small_snapshot());
  connection.sc_handle(packet(packet::type_reply, "cluster.api.state.request", snapshot_reply),
                       out);

  byte_reader in{data, size};
  // The first byte chooses between packets decoded from the bytes as they are and packets
  // built from them (which reach the fields the handling reads far more often).
  const bool decoded = in.next() & 1;
  while (!in.done()) {
    packet p;
    if (decoded) {
      try {
        p = zelnet::zelp::decode_packet(reinterpret_cast<const char*>(data + 1), size - 1);
      } catch (const zelbase::es::base&) {
        return 0;
      }
      in.at = size;
    } else {
      const std::int32_t type = in.next() % 6;
      const std::string name = pick(names, in);
      p = packet(type, name, build_tree(in, 3));
    }
    out = packet();
    connection.sc_handle(p, out);
  }
  zelcore::properties snapshot;
  connection.get_state()->get_state(snapshot);
  zelcore::encode_property(snapshot);
  return 0;
}
