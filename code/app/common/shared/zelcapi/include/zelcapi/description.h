// Work descriptions: the workflows and plain jobs that a pipeline developer writes
// (docs/descriptions.md), checked and converted into what the master takes. A description is a
// property tree (zelctl reads it from YAML or JSON, Python builds it from a dict, C++ code builds
// it directly): either a workflow (tasks with their commands and run parameters, dependencies by
// name, in-values, out-values passed to dependants; a template or not) or a list of plain jobs.
// convert_description checks the whole tree and gives every error at once, each with its place
// in the description as a JSON Pointer ("/tasks/2/cores"). Nothing here sends anything.
//
// Threading: plain functions and values; nothing is shared between calls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zelcapi/export.h"
#include "zelcore/properties.h"

namespace zelcapi {

// What is wrong at one place of a description.
enum class description_issue : std::uint8_t {
  missing,       // a required field is absent
  unknown_key,   // a key the format does not have (the message suggests the likely one)
  wrong_kind,    // a value of another kind: a string where an int belongs, a map for a list
  out_of_range,  // a number outside its range, an empty text or list where content is needed
  bad_name,      // a name holding characters that names may not hold
  duplicate,     // a name given twice
  unknown_name,  // a dependency, in-value or setting that names nothing the workflow has
  cycle,         // dependencies that go round
  bad_value,     // a value refused for another reason (a reserved meta data key, a setting
                 // that does not read as its in-value's kind, a template without in-values)
  no_value,      // an in-value without a default that was given no value
};

// Name of an issue: "missing", "unknown-key", "wrong-kind", ..., "no-value".
ZELCAPI_EXPORT const char* description_issue_c_str(description_issue issue);

struct description_error {
  // JSON Pointer (RFC 6901) of the place in the description: the key or element concerned, or
  // for a missing field the field's own path. "" names the whole description.
  std::string path;
  std::string message;
  description_issue issue = description_issue::bad_value;
  // The index of the setting (convert_description's `settings`) that the error concerns, or -1
  // for an error of the description itself (then `path` says where).
  int setting = -1;
};

// A value for one of a workflow's in-values, given beside the description (zelctl's
// `--set NAME=VALUE`, Python's keyword values).
struct description_setting {
  std::string name;
  // A value of the in-value's kind, or a string read as that kind ("42" for an int, "true" for
  // a bool, "a,b" for a list of strings).
  zelcore::property_ptr value;
};

// Splits "NAME=VALUE" at its first '=' into a setting whose value is the string VALUE (which may
// be empty or hold '='). Raises zelbase::es::arg "'TEXT' is not NAME=VALUE" for a text without
// '=' or with nothing before it.
ZELCAPI_EXPORT description_setting parse_description_setting(const std::string& text);

// Reads `text` as an int of a description: a whole decimal number with an optional sign, within
// 64 bits (as settings and description files write ints). False, `out` unchanged, for any other
// text.
ZELCAPI_EXPORT bool read_description_int(const std::string& text, std::int64_t& out);

enum class description_kind : std::uint8_t {
  invalid,   // neither could be told apart: the errors say why
  workflow,  // a workflow or a template
  jobs,      // plain jobs
};

// A description, checked and converted. When `errors` is empty, the fields of its kind hold
// exactly what the master takes; otherwise they hold what could be converted and must not be sent.
struct ZELCAPI_EXPORT work_description {
  description_kind kind = description_kind::invalid;
  // Every error, in the order of the description (keys of a map in key order, elements of a
  // list in index order), then those of the settings in their order.
  std::vector<description_error> errors;
  // The workflow's name (its meta data "name"), or the submission's name ("" when none).
  std::string name;

  // Workflow: a template (type 0) or a workflow that runs when added (type 2).
  bool is_template = false;
  // Workflow: its encoding (docs/workflow-model.md), the "workflow" of an "add-workflow" action.
  zelcore::properties workflow;
  // Workflow: in-value name -> the value it takes (a setting's, else its default). A workflow's
  // values are in its encoding already; a template's spawn a workflow (spawn_values).
  zelcore::properties values;
  // Template: in-node path ("task>in-value") -> value, the "values" of the "set-in-values"
  // action that spawns a workflow from the template; empty for a workflow.
  zelcore::properties spawn_values;

  // Jobs: the fields of a "cluster.api.jobs.submit" request: "jobs" (a list of job
  // descriptions) and "name" when the description names the submission.
  zelcore::properties submission;

  bool valid() const noexcept { return kind != description_kind::invalid && errors.empty(); }
  // The "add-workflow" action that adds the workflow (or template) under `state_id` ("" lets
  // the master choose). Raises zelbase::es::arg unless this is a valid workflow description.
  zelcore::properties add_workflow_action(const std::string& state_id) const;
  // The "set-in-values" action that spawns a workflow from the template added as `template_id`,
  // with this description's values, under `state_id` ("" lets the master choose). Raises
  // zelbase::es::arg unless this is a valid template description.
  zelcore::properties spawn_action(const std::string& template_id,
                                   const std::string& state_id) const;
};

// Checks `description` and converts it; never raises for anything the description or the
// settings hold. A description with "tasks" is a workflow, one with "jobs" plain jobs. Settings
// are applied by name to the workflow's in-values with the same checks as the description's
// defaults (a setting for a jobs description, or for an in-value the workflow does not have, is
// an error).
ZELCAPI_EXPORT work_description convert_description(
    const zelcore::properties& description, const std::vector<description_setting>& settings = {});

}  // namespace zelcapi
