// The text exposition format: lines of "name{label="value",...} value", escaped.
#include "metrics.h"

#include <charconv>
#include <cmath>

namespace zelctl {
namespace {

// HELP text: a backslash and a line feed escaped. Label values: also the double quote.
void append_escaped(std::string& out, std::string_view text, bool quote) {
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (quote && c == '"') {
      out += "\\\"";
    } else {
      out += c;
    }
  }
}

}  // namespace

std::string metric_value_text(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  // Whole numbers in full ("100000", not "1e+05"): bucket bounds read as written.
  if (value == std::floor(value) && std::fabs(value) < 1e15) {
    return std::to_string(static_cast<long long>(value));
  }
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, value);
  return std::string(text, end.ptr);
}

void histogram_counts::observe(double value) {
  for (std::size_t i = 0; i < bounds.size(); ++i) {
    if (value <= bounds[i]) {
      ++buckets[i];
      break;
    }
  }
  sum += value;
  ++count;
}

void metrics_text::family(std::string_view name, std::string_view type, std::string_view help) {
  text_ += "# HELP ";
  text_ += name;
  text_ += ' ';
  append_escaped(text_, help, false);
  text_ += "\n# TYPE ";
  text_ += name;
  text_ += ' ';
  text_ += type;
  text_ += '\n';
}

void metrics_text::start_sample(std::string_view name, std::initializer_list<label> labels) {
  text_ += name;
  if (labels.size() != 0) {
    char separator = '{';
    for (const auto& [key, value] : labels) {
      text_ += separator;
      text_ += key;
      text_ += "=\"";
      append_escaped(text_, value, true);
      text_ += '"';
      separator = ',';
    }
    text_ += '}';
  }
  text_ += ' ';
}

void metrics_text::sample(std::string_view name, std::initializer_list<label> labels,
                          double value) {
  start_sample(name, labels);
  text_ += metric_value_text(value);
  text_ += '\n';
}

void metrics_text::sample(std::string_view name, std::initializer_list<label> labels,
                          std::uint64_t value) {
  start_sample(name, labels);
  text_ += std::to_string(value);
  text_ += '\n';
}

void metrics_text::histogram(std::string_view name, std::string_view help,
                             const histogram_counts& h) {
  family(name, "histogram", help);
  const std::string bucket = std::string(name) + "_bucket";
  std::uint64_t below = 0;
  for (std::size_t i = 0; i < h.bounds.size(); ++i) {
    below += h.buckets[i];
    sample(bucket, {{"le", metric_value_text(h.bounds[i])}}, below);
  }
  sample(bucket, {{"le", "+Inf"}}, h.count);
  sample(std::string(name) + "_sum", h.sum);
  sample(std::string(name) + "_count", h.count);
}

}  // namespace zelctl
