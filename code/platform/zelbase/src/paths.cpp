// Separator paths and workflow identifiers.
#include "zelbase/paths.h"

namespace zelbase {

std::string path_front(const std::string& path, char separator) {
  return path.substr(0, path.find(separator));
}

std::string path_back(const std::string& path, char separator) {
  const auto at = path.rfind(separator);
  return at == std::string::npos ? path : path.substr(at + 1);
}

std::string& path_pop_front(std::string& path, char separator) {
  const auto at = path.find(separator);
  if (at == std::string::npos)
    path.clear();
  else
    path.erase(0, at + 1);
  return path;
}

std::string path_appended(const std::string& path, const std::string& element, char separator) {
  if (path.empty()) return element;
  std::string out;
  out.reserve(path.size() + 1 + element.size());
  out.append(path).push_back(separator);
  out.append(element);
  return out;
}

const std::string& workflow_new() {
  static const std::string scheme = "workflow";
  return scheme;
}

std::string workflow_id(const std::string& identifier) {
  const std::string& scheme = workflow_new();
  if (identifier.size() > scheme.size() && identifier.compare(0, scheme.size(), scheme) == 0 &&
      identifier[scheme.size()] == ':')
    return identifier.substr(scheme.size() + 1);
  return identifier;
}

std::string workflow_new_id(const std::string& scheme, const std::string& state_id) {
  return uri_new_scheme_specific(scheme, state_id);
}

std::string uri_new_scheme_specific(const std::string& scheme, const std::string& specific) {
  std::string out;
  out.reserve(scheme.size() + 1 + specific.size());
  out.append(scheme).push_back(':');
  out.append(specific);
  return out;
}

}  // namespace zelbase
