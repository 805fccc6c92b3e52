// The requests whose replies end a callback (send_async): each request carries an id of its own
// in its bounce tree, which the peer copies into its reply, and the reply is found by that id.
#include "connection_impl.h"
#include "zelcore/report.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\api";

using zelnet::zelp::packet;

zelnet::ioctrl::clock::time_point after_seconds(unsigned seconds) {
  return zelnet::ioctrl::clock::now() + std::chrono::seconds(seconds);
}

// The caller's bounce tree (empty when it sent none) with the request id under
// request_id_key; false when "bounce" holds something other than a tree.
bool bounce_with_id(const zelcore::properties& request, std::uint64_t id,
                    zelcore::properties& bounce) {
  const zelcore::property_ptr given = request.get_property(packet::bounce_property_id());
  if (given) {
    if (given->kind() != zelcore::property::kind_properties) return false;
    bounce = static_cast<const zelcore::properties&>(*given);
  }
  bounce.set_int_value(request_id_key, static_cast<std::int64_t>(id));
  return true;
}

}  // namespace

bool reply_request_id(const packet& reply, std::uint64_t& id) {
  const zelcore::property_ptr bounce =
      reply.get_properties().get_property(packet::bounce_property_id());
  if (!bounce || bounce->kind() != zelcore::property::kind_properties) return false;
  const zelcore::property_ptr value =
      static_cast<const zelcore::properties&>(*bounce).get_property(request_id_key);
  if (!value || value->kind() != zelcore::property::kind_int) return false;
  id = static_cast<std::uint64_t>(static_cast<const zelcore::property_int&>(*value).value());
  return true;
}

void connection::send_async(const packet& p, unsigned timeout, reply_callback done) {
  if (!link_) {
    done(packet(), reported_failure(source_file, __LINE__, 3, "No connection"));
    return;
  }
  const std::uint64_t id = operations_->next_id++;
  // A copy shares the caller's tree: only its top level is copied when the id goes in.
  packet request(p);
  zelcore::properties bounce;
  if (!bounce_with_id(p.get_properties(), id, bounce)) {
    done(packet(),
         reported_failure(
             source_file, __LINE__, 3,
             "request '" + p.get_name() + "': \"bounce\" is a " +
                 zelcore::property_kind_c_str(
                     p.get_properties().get_property(packet::bounce_property_id())->kind()) +
                 ", not a properties (the request id travels in it)"));
    return;
  }
  const bool had_bounce = p.get_properties().is_present(packet::bounce_property_id());
  request.get_properties().set_properties_value(packet::bounce_property_id(), bounce);
  link_->send(request);
  const timer_id timer = add_timer(after_seconds(timeout), [this, id] {
    auto& requests = operations_->requests;
    for (auto it = requests.begin(); it != requests.end(); ++it) {
      if (it->id != id) continue;
      reply_callback ended = std::move(it->done);
      requests.erase(it);
      ended(packet(), reported_failure(source_file, __LINE__, 4, "Connection timeout"));
      return;
    }
  });
  operations_->requests.push_back(
      connection_operations::request_op{id, p.get_name(), had_bounce, std::move(done), timer});
}

bool connection::_take_reply(std::uint64_t id, const packet& in) {
  auto& requests = operations_->requests;
  for (auto it = requests.begin(); it != requests.end(); ++it) {
    if (it->id != id) continue;
    if (it->name != in.get_name()) return false;
    // The caller gets the reply with its own bounce tree, as it sent it.
    packet reply(in);
    if (it->had_bounce) {
      zelcore::properties bounce =
          in.get_properties().get_properties_value(packet::bounce_property_id());
      bounce.erase(request_id_key);
      reply.get_properties().set_properties_value(packet::bounce_property_id(), bounce);
    } else {
      reply.get_properties().erase(packet::bounce_property_id());
    }
    reply_callback ended = std::move(it->done);
    cancel_timer(it->timer);
    requests.erase(it);
    ended(reply, nullptr);
    return true;
  }
  return false;
}

}  // namespace zelcapi
