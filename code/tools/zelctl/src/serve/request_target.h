// The target of an HTTP request split into its decoded path and query parameters. Bad
// percent-escapes and oversized parts are refused (the server answers 400), never guessed.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace zelctl::serve {

struct request_target {
  std::string path;                          // decoded, starts with '/'
  std::map<std::string, std::string> query;  // decoded; a repeated key keeps its last value
  // The value of a query parameter, or `fallback`.
  std::string param(const std::string& key, const std::string& fallback = "") const {
    const auto it = query.find(key);
    return it == query.end() ? fallback : it->second;
  }
};

// Decodes "%XX" escapes (and '+' as a space when `plus_is_space`); nothing when an escape is
// malformed or decodes to a NUL byte.
std::optional<std::string> percent_decode(std::string_view text, bool plus_is_space);

// Splits "/path?a=1&b=2"; nothing for a target that is not an absolute path or that does not
// decode.
std::optional<request_target> parse_target(std::string_view target);

// The value of cookie `name` in a Cookie header, or empty.
std::string cookie_value(std::string_view header, std::string_view name);

}  // namespace zelctl::serve
