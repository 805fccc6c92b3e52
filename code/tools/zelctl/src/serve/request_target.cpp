// Request targets: percent-decoding, query splitting and cookie lookup.
#include "serve/request_target.h"

namespace zelctl::serve {
namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

}  // namespace

std::optional<std::string> percent_decode(std::string_view text, bool plus_is_space) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size()) return std::nullopt;
      const int high = hex_digit(text[i + 1]);
      const int low = hex_digit(text[i + 2]);
      if (high < 0 || low < 0) return std::nullopt;
      const char decoded = static_cast<char>(high * 16 + low);
      if (decoded == '\0') return std::nullopt;
      out.push_back(decoded);
      i += 2;
    } else if (c == '+' && plus_is_space) {
      out.push_back(' ');
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::optional<request_target> parse_target(std::string_view target) {
  if (target.empty() || target.front() != '/') return std::nullopt;
  const std::size_t question = target.find('?');
  request_target t;
  const auto path = percent_decode(target.substr(0, question), false);
  if (!path) return std::nullopt;
  t.path = *path;
  if (question == std::string_view::npos) return t;
  std::string_view rest = target.substr(question + 1);
  while (!rest.empty()) {
    const std::size_t amp = rest.find('&');
    const std::string_view pair = rest.substr(0, amp);
    rest = amp == std::string_view::npos ? std::string_view{} : rest.substr(amp + 1);
    if (pair.empty()) continue;
    const std::size_t eq = pair.find('=');
    const auto key = percent_decode(pair.substr(0, eq), true);
    const auto value = percent_decode(
        eq == std::string_view::npos ? std::string_view{} : pair.substr(eq + 1), true);
    if (!key || !value) return std::nullopt;
    t.query[*key] = *value;
  }
  return t;
}

std::string cookie_value(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    const std::size_t semi = header.find(';');
    const std::string_view pair = trim(header.substr(0, semi));
    header = semi == std::string_view::npos ? std::string_view{} : header.substr(semi + 1);
    const std::size_t eq = pair.find('=');
    if (eq != std::string_view::npos && trim(pair.substr(0, eq)) == name) {
      return std::string(trim(pair.substr(eq + 1)));
    }
  }
  return "";
}

}  // namespace zelctl::serve
