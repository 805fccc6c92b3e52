// Private helpers of the workflow manager's source files: the report source and texts, and
// small builders of update-action fields.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

#include "zelbase/exceptions.h"
#include "zelbase/paths.h"
#include "zelbase/strings.h"
#include "zelcapi/workflow_manager.h"
#include "zelcore/report.h"

namespace zelcapi {
namespace workflow_manager_detail {

using zelcore::properties;
using zelworkflow::task_info;
using zelworkflow::workflow_info;
using property_ptr = workflow_manager::property_ptr;

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\workflow_manager";
constexpr const char* report_category = "workflow_manager";
constexpr zelcore::kind report_kind = 8;
constexpr zelbase::severity report_severity = 3;
constexpr std::int64_t invalid_state_id_code = -3414000;
// The lines under which an unknown update action is reported and raised; log readers match
// on them.
constexpr unsigned unknown_action_report_line = 478;
constexpr unsigned unknown_action_raise_line = 479;
constexpr char path_separator = '>';

inline void report_failure(unsigned line, const std::string& message) {
  zelcore::report(source_file, line, report_category, report_kind, report_severity, message);
}

[[noreturn]] inline void raise_invalid_state_id(unsigned line, const std::string& message) {
  report_failure(line, message);
  zelbase::es::api_code::raise(source_file, line, invalid_state_id_code, message);
}

[[noreturn]] inline void raise_arg(unsigned line, const std::string& message) {
  report_failure(line, message);
  zelbase::es::arg::raise(source_file, line, message);
}

inline property_ptr string_value(const std::string& text) { return zelcore::make_string(text); }
inline property_ptr int_value(std::int64_t value) { return zelcore::make_int(value); }
inline property_ptr tree_value(const properties& tree) {
  return property_ptr(new properties(tree));
}

// A field that must be present, of any kind; raises as the tree's own getters do.
inline property_ptr required_property(const properties& tree, const std::string& key) {
  property_ptr value = tree.get_property(key);
  if (!value)
    zelbase::es::arg::raise(source_file, __LINE__,
                            zelbase::string_with_format("property '%s' is missing", key.c_str()));
  return value;
}

// A nested tree of an update, shared with the update rather than copied.
inline workflow_manager::properties_ptr required_shared_tree(const properties& tree,
                                                             const std::string& key) {
  return workflow_manager::properties_ptr(&tree.get_properties_value(key));
}

// The workflow state id addressed by the first element of a wpath.
inline std::string wfid_of(const std::string& wpath) {
  return zelbase::workflow_id(zelbase::path_front(wpath, path_separator));
}

// How whole-map reports name a task.
inline std::string task_path(const std::string& state_id, const std::string& wtid) {
  return zelbase::path_appended(zelbase::workflow_new_id(zelbase::workflow_new(), state_id), wtid,
                                path_separator);
}

inline bool is_one_of(const std::string& text, std::initializer_list<const char*> candidates) {
  for (const char* candidate : candidates)
    if (text == candidate) return true;
  return false;
}

inline properties meta_data_action(const char* action, const std::string& wf,
                                   const properties& meta) {
  return properties{{"action", string_value(action)},
                    {"wf-state-id", string_value(wf)},
                    {"meta-data", tree_value(meta)}};
}

}  // namespace workflow_manager_detail
}  // namespace zelcapi
