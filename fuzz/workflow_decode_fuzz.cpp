// Fuzz target: random bytes, read as a property tree, into the workflow decoder must give a
// workflow or es::arg, nothing else; a decoded workflow must round-trip exactly, and its graph
// queries must run on whatever graph the input described.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "zelbase/exceptions.h"
#include "zelcore/properties.h"
#include "zelworkflow/workflow_info.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelcore::properties tree;
  try {
    tree = zelcore::decode_properties(reinterpret_cast<const char*>(data), size);
  } catch (const zelbase::es::base&) {
    return 0;
  }
  const zelcore::plugin_db db;
  zelworkflow::workflow_info wf;
  try {
    wf.decode_workflow_info(tree, db);
  } catch (const zelbase::es::arg&) {
    if (wf != zelworkflow::workflow_info()) std::abort();
    return 0;
  }
  zelcore::properties encoded;
  wf.encode_workflow_info(encoded);
  zelworkflow::workflow_info again;
  again.decode_workflow_info(encoded, db);
  if (again != wf) std::abort();
  std::list<std::string> runnable;
  std::map<std::string, std::string> reasons;
  wf.get_tasks_runnability(runnable, reasons);
  std::set<std::string> invalid;
  wf.get_invalid_pre_reqs_tasks(invalid);
  std::string dot;
  wf.make_dot_graph(dot);
  return 0;
}
