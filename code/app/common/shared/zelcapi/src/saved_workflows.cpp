#include "saved_workflows.h"

namespace zelcapi::detail {

saved_workflows::encoded_list saved_workflows::take(const state::workflow_map& workflows) {
  std::map<std::string, encoding> current;
  encoded_list out;
  out.reserve(workflows.size());
  auto old = encodings_.begin();
  for (const auto& [id, workflow] : workflows) {
    // Both maps are in id order: the old entry of an id is found walking forwards.
    while (old != encodings_.end() && old->first < id) ++old;
    const std::uint64_t stamp = workflow->get_change_stamp();
    encoding e;
    if (old != encodings_.end() && old->first == id && old->second.stamp == stamp &&
        old->second.workflow.lock() == workflow) {
      e = std::move(old->second);
    } else {
      e.workflow = workflow;
      e.stamp = stamp;
      workflow->encode_workflow_info(e.tree);
    }
    out.emplace_back(id, e.tree);
    current.emplace_hint(current.end(), id, std::move(e));
  }
  encodings_ = std::move(current);
  return out;
}

}  // namespace zelcapi::detail
