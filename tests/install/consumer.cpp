// A client of the installed library, as README.md shows one: it includes the one public
// header, and catches what the library raises.
#include <zelcapi/zelcapi.h>

#include <cstdio>
#include <string>

int main() {
  // Reports and debug prints go where the client says; the clock is the client's to set.
  std::string last_report;
  zelcore::set_report_sink([&](const zelcore::report_record& r) { last_report = r.message; });
  zelcore::ds::set_print_sink([](const std::string&, const std::string&) {});
  zelbase::set_time_clock([] { return std::uint32_t{1700000000}; });

  // A state replica: one job, merged in and read back.
  zelcore::plugin_db plugins;
  zelcapi::state st(plugins, nullptr);
  st.item_update(zelcapi::state_item_job, "j1", zelcore::properties{{"a", zelcore::make_int(1)}});
  bool ok = st.get_item(zelcapi::state_item_job, "j1").get_int_value("a") == 1;

  // A connection that was never connected refuses to send, with a zelbase::es::base.
  zelcapi::connection c;
  try {
    c.send(
        zelnet::zelp::packet(zelnet::zelp::packet::type_request, "cluster.client.cluster-status"));
    ok = false;
  } catch (const zelbase::es::base& e) {
    std::printf("raised: %s\n", e.what());
  }
  ok = ok && zelbase::time_in_seconds() == 1700000000;

  std::puts(ok ? "consumer ok" : "consumer FAILED");
  return ok ? 0 : 1;
}
