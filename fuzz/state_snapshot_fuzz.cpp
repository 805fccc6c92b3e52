// Fuzz target: random bytes, read as a property tree, handed to a state as a snapshot must load
// or be refused with es::base or std::bad_cast, nothing else; whatever loaded must come out of
// get_state and go through the saver into a memory store, whose records must equal the state's.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <typeinfo>

#include "zelbase/exceptions.h"
#include "zelcapi/memory_db.h"
#include "zelcapi/state.h"
#include "zelcore/properties.h"
#include "zelcore/report.h"

namespace {

const char* const kinds[] = {"clients", "nodes", "submissions", "sources",
                             "slots",   "jobs",  "tasks"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (zelcore::set_report_sink([](const zelcore::report_record&) {}), true);
  (void)quiet;
  zelcore::property_ptr decoded;
  try {
    decoded = zelcore::decode_property(reinterpret_cast<const char*>(data), size);
  } catch (const zelbase::es::base&) {
    return 0;
  }
  if (decoded->kind() != zelcore::property::kind_properties) return 0;
  const zelcore::plugin_db plugins;
  zelcapi::memory_state_db db;
  zelcapi::state st(plugins, nullptr, &db);
  try {
    st.set_state(static_cast<const zelcore::properties&>(*decoded));
  } catch (const zelbase::es::base&) {
  } catch (const std::bad_cast&) {
  }
  zelcore::properties snapshot(false);
  st.get_state(snapshot);
  st.save_state_to_db(true);
  for (int kind = 0; kind < 7; ++kind) {
    const zelcapi::properties_cptr saved = db.load_items(static_cast<zelcapi::db_item_type>(kind));
    if (!(*saved == snapshot.get_properties_value(kinds[kind]))) std::abort();
  }
  if (db.load_workflow_sequence_number() != st.get_workflow_sequence_number()) std::abort();
  if (db.load_items(zelcapi::db_item_workflow)->size() != st.get_workflows().size()) std::abort();
  return 0;
}
