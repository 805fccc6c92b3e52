// Uses the installed public API: a state with one job, merged and read back.
#include <zelcapi/zelcapi.h>

#include <cstdio>

int main() {
  zelcore::plugin_db plugins;
  zelcapi::state st(plugins, nullptr);
  st.item_update(zelcapi::state_item_job, "j1", zelcore::properties{{"a", zelcore::make_int(1)}});
  const bool ok = st.get_item(zelcapi::state_item_job, "j1").get_int_value("a") == 1;
  std::puts(ok ? "consumer ok" : "consumer FAILED");
  return ok ? 0 : 1;
}
