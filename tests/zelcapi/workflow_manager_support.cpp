// Test support for the workflow manager: the managed map and workflow encodings.
#include "zelcapi/workflow_manager_support.h"

namespace zeltest {

void managed_workflows::add(const std::string& id, const zelcore::properties& encoded) {
  auto wi = boost::shared_ptr<zelworkflow::workflow_info>(new zelworkflow::workflow_info());
  wi->decode_workflow_info(encoded, db);
  workflows[id] = wi;
}

zelcore::properties managed_workflows::encoded() const {
  zelcore::properties out;
  manager.encode_all_workflows(out);
  return out;
}

zelcore::properties empty_workflow(zelworkflow::workflow_info::workflow_type type) {
  zelworkflow::workflow_info wi;
  wi.set_type(type);
  zelcore::properties out;
  wi.encode_workflow_info(out);
  return out;
}

}  // namespace zeltest
