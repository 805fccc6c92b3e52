// Paths of elements joined by a separator, and the workflow identifier scheme.
//
// A workflow identifier is "workflow:" followed by a workflow state id. A wpath is such an
// identifier followed by ">" and a task id (and, for in-values, the in-node path), so
// workflow_id(path_front(wpath, '>')) is the state id and path_back(wpath, '>') the task id.
#pragma once

#include <string>

#include "zelbase/export.h"

namespace zelbase {

// The first element (the whole path when it has no separator).
ZELBASE_EXPORT std::string path_front(const std::string& path, char separator);
// The last element (the whole path when it has no separator).
ZELBASE_EXPORT std::string path_back(const std::string& path, char separator);
// Removes the first element and its separator in place (a one-element path becomes empty).
ZELBASE_EXPORT std::string& path_pop_front(std::string& path, char separator);
// The path with one more element at its end; an empty path gives the element alone.
ZELBASE_EXPORT std::string path_appended(const std::string& path, const std::string& element,
                                         char separator);

// The scheme of workflow identifiers: "workflow".
ZELBASE_EXPORT const std::string& workflow_new();
// The workflow state id held in a workflow identifier; a plain state id is returned unchanged.
ZELBASE_EXPORT std::string workflow_id(const std::string& identifier);
// The workflow identifier of a state id under the given scheme.
ZELBASE_EXPORT std::string workflow_new_id(const std::string& scheme, const std::string& state_id);
// "scheme:specific".
ZELBASE_EXPORT std::string uri_new_scheme_specific(const std::string& scheme,
                                                   const std::string& specific);

}  // namespace zelbase
