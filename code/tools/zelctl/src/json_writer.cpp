// The streaming JSON writer: escapes, UTF-8 replacement and indentation as nlohmann's dump with
// error_handler_t::replace and ensure_ascii off writes them.
#include "json_writer.h"

#include <charconv>

#include "zelbase/utf8.h"

namespace zelctl {
namespace {

const char replacement[] = "\xEF\xBF\xBD";

// Bytes that a JSON string holds as they are: printable ASCII but the quote and the backslash.
bool plain(unsigned char c) { return c >= 0x20 && c < 0x80 && c != '"' && c != '\\'; }

void append_escaped_ascii(std::string& out, unsigned char c) {
  switch (c) {
    case '\b': out += "\\b"; return;
    case '\t': out += "\\t"; return;
    case '\n': out += "\\n"; return;
    case '\f': out += "\\f"; return;
    case '\r': out += "\\r"; return;
    case '"': out += "\\\""; return;
    case '\\': out += "\\\\"; return;
    default: break;
  }
  if (c < 0x20) {
    static const char hex[] = "0123456789abcdef";
    const char escape[] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xF]};
    out.append(escape, sizeof escape);
    return;
  }
  out += static_cast<char>(c);
}

}  // namespace

void append_json_string(std::string& out, std::string_view text) {
  out += '"';
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    std::size_t run = i;
    while (run < n && plain(s[run])) ++run;
    out.append(text.data() + i, run - i);
    i = run;
    if (i == n) break;
    const unsigned char c = s[i];
    if (c < 0x80) {
      append_escaped_ascii(out, c);
      ++i;
      continue;
    }
    // A sequence broken off by a byte that cannot continue it is replaced by one U+FFFD and that
    // byte is read again as the start of the next; a byte that cannot start one is replaced.
    const zelbase::utf8_sequence sequence = zelbase::read_utf8(s + i, n - i);
    if (sequence.valid) {
      out.append(text.data() + i, sequence.length);
    } else {
      out += replacement;
    }
    i += sequence.length;
  }
  out += '"';
}

void json_writer::newline_and_indent() {
  out_ += '\n';
  out_.append(2 * levels_.size(), ' ');
}

void json_writer::before_value() {
  if (after_key_) {
    after_key_ = false;
    return;
  }
  if (levels_.empty()) return;
  level& l = levels_.back();
  if (l.has_members) out_ += ',';
  l.has_members = true;
  if (pretty_) newline_and_indent();
}

void json_writer::begin_object() {
  before_value();
  out_ += '{';
  levels_.push_back({true, false});
}

void json_writer::key(std::string_view name) {
  level& l = levels_.back();
  if (l.has_members) out_ += ',';
  l.has_members = true;
  if (pretty_) newline_and_indent();
  append_json_string(out_, name);
  out_ += pretty_ ? ": " : ":";
  after_key_ = true;
}

void json_writer::end_level(char close) {
  const bool had_members = levels_.back().has_members;
  levels_.pop_back();
  if (pretty_ && had_members) newline_and_indent();
  out_ += close;
}

void json_writer::end_object() { end_level('}'); }

void json_writer::value(std::int64_t n) {
  before_value();
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, n).ptr;
  out_.append(digits, end);
}

void json_writer::value(std::string_view text) {
  before_value();
  append_json_string(out_, text);
}

void json_writer::raw_value(std::string_view json) {
  before_value();
  out_ += json;
}

void json_writer::value(const zelcore::property_ptr& p) {
  if (p) {
    value(*p);
    return;
  }
  before_value();
  out_ += "null";
}

void json_writer::value(const zelcore::property& p) {
  switch (p.kind()) {
    case zelcore::property::kind_int:
      value(static_cast<const zelcore::property_int&>(p).value());
      return;
    case zelcore::property::kind_bool:
      before_value();
      out_ += static_cast<const zelcore::property_bool&>(p).value() ? "true" : "false";
      return;
    case zelcore::property::kind_string:
      before_value();
      append_json_string(out_, static_cast<const zelcore::property_string&>(p).value());
      return;
    case zelcore::property::kind_list:
      before_value();
      out_ += '[';
      levels_.push_back({false, false});
      for (const auto& element : static_cast<const zelcore::property_list&>(p).value()) {
        value(element);
      }
      end_level(']');
      return;
    case zelcore::property::kind_properties:
      begin_object();
      for (const auto& [name, child] : static_cast<const zelcore::properties&>(p)) {
        if (!child) continue;
        key(name);
        value(*child);
      }
      end_object();
      return;
  }
}

}  // namespace zelctl
