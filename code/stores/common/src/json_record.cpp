// The JSON text of a record: a direct writer from the property tree and a direct reader back,
// with the escape forms for bytes that are not UTF-8 and for keys beginning with "~".
#include "json_record.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

#include "prefetch_children.h"
#include "zelbase/exceptions.h"
#include "zelbase/utf8.h"

namespace zelcapi::store_detail {

namespace {

using zelcore::properties;
using zelcore::property;
using zelcore::property_ptr;

constexpr const char* source_file = "code\\stores\\common\\src\\json_record";
constexpr char hex_digits[] = "0123456789abcdef";

// The length of the valid UTF-8 sequence at p (at most `left` bytes there), 0 when invalid.
std::size_t utf8_length(const unsigned char* p, std::size_t left) {
  const zelbase::utf8_sequence sequence = zelbase::read_utf8(p, left);
  return sequence.valid ? sequence.length : 0;
}

// The bytes that a JSON string holds as they are: all but the quote, the backslash and controls.
constexpr auto plain_in_string = [] {
  std::array<bool, 256> plain{};
  for (std::size_t c = 0x20; c < 256; ++c) plain[c] = c != '"' && c != '\\';
  return plain;
}();

// For each byte of the word w (eight bytes of a string, in memory order) that a JSON string does
// not hold as it is (only bytes below 0x80 are plain with `ascii_only`), a high bit. The lowest
// flagged byte is exact: a borrow of the subtractions only runs towards higher bytes, and the
// bytes below the first one that is not plain borrow nothing.
template <bool ascii_only>
std::uint64_t not_plain_bytes(std::uint64_t w) {
  constexpr std::uint64_t ones = 0x0101010101010101;
  constexpr std::uint64_t highs = 0x8080808080808080;
  // A high bit where a byte of v is below n (n at most 0x80).
  const auto below = [](std::uint64_t v, std::uint64_t n) { return (v - ones * n) & ~v & highs; };
  return below(w, 0x20) | below(w ^ (ones * '"'), 1) | below(w ^ (ones * '\\'), 1) |
         (ascii_only ? w & highs : 0);
}

// The position in memory order of the first byte flagged by not_plain_bytes (nonzero).
inline std::size_t first_flagged(std::uint64_t flags) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  return static_cast<std::size_t>(__builtin_clzll(flags)) / 8;
#else
  return static_cast<std::size_t>(__builtin_ctzll(flags)) / 8;
#endif
}

template <bool ascii_only>
bool plain_byte(unsigned char c) {
  return plain_in_string[c] && (!ascii_only || c < 0x80);
}

// Past the bytes from p that a JSON string holds as they are, eight at a time while eight are
// left. Stops at end or at the first byte that is not plain.
const char* skip_plain(const char* p, const char* const end) {
  while (end - p >= 8) {
    std::uint64_t w;
    std::memcpy(&w, p, sizeof w);
    if (const std::uint64_t flags = not_plain_bytes<false>(w)) return p + first_flagged(flags);
    p += 8;
  }
  while (p < end && plain_byte<false>(static_cast<unsigned char>(*p))) ++p;
  return p;
}

class writer {
 public:
  writer(zelbase::encoder_network& out, json_form form) : out_(out), form_(form) {}

  void tree(const properties& p, std::size_t depth) {
    prefetch_children(p);
    if (form_ != json_form::jsonb || std::is_sorted(p.begin(), p.end(), jsonb_before)) {
      members(p, p.begin(), p.end(), depth);
      return;
    }
    // The members in jsonb's order go on a stack that nested trees share and later records
    // reuse, so that a record costs no allocation.
    std::vector<properties::const_iterator>& order = sorted_members();
    const std::size_t from = order.size();
    for (auto it = p.begin(); it != p.end(); ++it) order.push_back(it);
    std::sort(order.begin() + static_cast<std::ptrdiff_t>(from), order.end(),
              [](properties::const_iterator a, properties::const_iterator b) {
                return jsonb_before(*a, *b);
              });
    const struct pop {
      std::size_t to;
      ~pop() { sorted_members().resize(to); }
    } popped{from};
    members(p, stacked{from}, stacked{order.size()}, depth);
  }

 private:
  // jsonb's order of an object's keys: shorter first, then by their bytes.
  static bool jsonb_before(const zelcore::property_item& a, const zelcore::property_item& b) {
    return a.first.size() != b.first.size() ? a.first.size() < b.first.size() : a.first < b.first;
  }

  static std::vector<properties::const_iterator>& sorted_members() {
    thread_local std::vector<properties::const_iterator> stack;
    return stack;
  }
  // A place on that stack, looked up at each step: a nested tree may grow the stack meanwhile.
  struct stacked {
    std::size_t at;
    zelcore::property_item operator*() const { return *sorted_members()[at]; }
    stacked& operator++() noexcept { return ++at, *this; }
    bool operator!=(stacked other) const noexcept { return at != other.at; }
  };

  // The members of tree `p`, visited from `from` to `to`.
  template <class It>
  void members(const properties& p, It from, It to, std::size_t depth) {
    const std::size_t start = out_.size();
    put('{');
    bool first = true;
    for (; from != to; ++from) {
      const auto& [key, child] = zelcore::property_item(*from);
      if (!child) continue;
      if (!first) put(',');
      first = false;
      if ((!key.empty() && key[0] == '~') || !string(key)) {
        out_.truncate(start);
        escaped_tree(p, depth);
        return;
      }
      put(':');
      value(*child, depth);
    }
    put('}');
  }

  void escaped_tree(const properties& p, std::size_t depth) {
    put("{\"~o\":[");
    bool first = true;
    for (const auto& [key, child] : p) {
      if (!child) continue;
      if (!first) put(',');
      first = false;
      string_or_hex(key);
      put(',');
      value(*child, depth);
    }
    put("]}");
  }

  // `depth` is that of the container holding the value.
  void value(const property& v, std::size_t depth) {
    switch (v.kind()) {
      case property::kind_int: {
        char* const digits = out_.room(int_room);
        const auto r = std::to_chars(digits, digits + int_room,
                                     static_cast<const zelcore::property_int&>(v).value());
        out_.advance(static_cast<std::size_t>(r.ptr - digits));
        return;
      }
      case property::kind_bool:
        put(static_cast<const zelcore::property_bool&>(v).value() ? "true" : "false");
        return;
      case property::kind_string:
        string_or_hex(static_cast<const zelcore::property_string&>(v).value());
        return;
      case property::kind_list: {
        check_depth(depth + 1);
        put('[');
        bool first = true;
        for (const property_ptr& element : static_cast<const zelcore::property_list&>(v).value()) {
          if (!element) continue;
          if (!first) put(',');
          first = false;
          value(*element, depth + 1);
        }
        put(']');
        return;
      }
      case property::kind_properties:
        check_depth(depth + 1);
        tree(static_cast<const properties&>(v), depth + 1);
        return;
    }
  }

  static void check_depth(std::size_t depth) {
    if (depth > json_max_depth)
      zelbase::es::arg::raise(
          source_file, __LINE__,
          "record nested deeper than " + std::to_string(json_max_depth) + " levels");
  }

  void put(char c) {
    *out_.room(1) = c;
    out_.advance(1);
  }
  void put(std::string_view text) { out_.write(text.data(), text.size()); }

  void string_or_hex(const std::string& s) {
    if (string(s)) return;
    // {"~x":"<two digits a byte>"}
    char* const begin = out_.room(2 * s.size() + 10);
    char* w = begin;
    std::memcpy(w, "{\"~x\":\"", 7);
    w += 7;
    for (const unsigned char c : s) {
      *w++ = hex_digits[c >> 4];
      *w++ = hex_digits[c & 15];
    }
    std::memcpy(w, "\"}", 2);
    out_.advance(static_cast<std::size_t>(w + 2 - begin));
  }

  // Writes s as a JSON string; false (writing nothing) when s is not valid UTF-8 or holds a NUL
  // that must not be escaped.
  bool string(const std::string& s) {
    const std::size_t start = out_.size();
    put('"');
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    const auto* const end = p + s.size();
    for (;;) {
      p = copy_plain(p, end);
      if (p == end) break;
      const unsigned c = *p;
      if (c >= 0x80) {
        const std::size_t n = utf8_length(p, static_cast<std::size_t>(end - p));
        if (n == 0) {
          out_.truncate(start);
          return false;
        }
        out_.write(reinterpret_cast<const char*>(p), n);
        p += n;
        continue;
      }
      if (c == 0 && form_ == json_form::jsonb) {
        out_.truncate(start);
        return false;
      }
      escape(c);
      ++p;
    }
    put('"');
    return true;
  }

  // Copies the plain ASCII bytes from p on and returns where they stop. Whole words are copied
  // before their plain bytes are counted, so the room holds eight bytes more than the string.
  const unsigned char* copy_plain(const unsigned char* p, const unsigned char* const end) {
    char* const begin = out_.room(static_cast<std::size_t>(end - p) + 8);
    char* w = begin;
    while (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, sizeof word);
      std::memcpy(w, &word, sizeof word);
      if (const std::uint64_t flags = not_plain_bytes<true>(word)) {
        const std::size_t plain = first_flagged(flags);
        out_.advance(static_cast<std::size_t>(w - begin) + plain);
        return p + plain;
      }
      p += 8;
      w += 8;
    }
    while (p < end && plain_byte<true>(*p)) *w++ = static_cast<char>(*p++);
    out_.advance(static_cast<std::size_t>(w - begin));
    return p;
  }

  // A byte below 0x20, a quote or a backslash, escaped.
  void escape(unsigned c) {
    char* const begin = out_.room(6);
    char* w = begin;
    *w++ = '\\';
    switch (c) {
      case '"': *w++ = '"'; break;
      case '\\': *w++ = '\\'; break;
      case '\n': *w++ = 'n'; break;
      case '\t': *w++ = 't'; break;
      case '\r': *w++ = 'r'; break;
      default:
        std::memcpy(w, "u00", 3);
        w[3] = hex_digits[c >> 4];
        w[4] = hex_digits[c & 15];
        w += 5;
    }
    out_.advance(static_cast<std::size_t>(w - begin));
  }

  // The longest decimal 64-bit integer: a sign and 19 digits.
  static constexpr std::size_t int_room = 20;

  zelbase::encoder_network& out_;
  json_form form_;
};

class reader {
 public:
  reader(std::string_view text, std::vector<properties::container>& pending,
         shared_strings* strings)
      : begin_(text.data()),
        p_(text.data()),
        end_(text.data() + text.size()),
        pending_(pending),
        strings_(strings) {
    for (properties::container& children : pending_) children.clear();
  }

  properties record() {
    skip_space();
    const property_ptr top = value(0);
    skip_space();
    if (p_ != end_) fail("text after the record");
    if (top->kind() != property::kind_properties) fail("the record is not an object");
    return static_cast<const properties&>(*top);
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw malformed_json(what + " at offset " + std::to_string(p_ - begin_));
  }

  void skip_space() {
    while (p_ < end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\t' || *p_ == '\r')) ++p_;
  }

  void expect(char c) {
    skip_space();
    if (p_ == end_ || *p_ != c) fail(std::string("'") + c + "' expected");
    ++p_;
  }

  bool next_is(char c) {
    skip_space();
    return p_ < end_ && *p_ == c;
  }

  // A value inside a container of depth `depth`.
  property_ptr value(std::size_t depth) {
    skip_space();
    if (p_ == end_) fail("value expected");
    switch (*p_) {
      case '{': ++p_; return object(depth);
      case '[': ++p_; return list(depth);
      case '"': ++p_; return string_value(string());
      case 't': return literal("true", zelcore::make_bool(true));
      case 'f': return literal("false", zelcore::make_bool(false));
      case 'n': fail("null is not a value of a record");
      default: return number();
    }
  }

  property_ptr string_value(std::string_view text) {
    if (strings_ && text.size() <= shared_strings::longest) return strings_->get(value_key_, text);
    return zelcore::make_string(std::string(text));
  }

  property_ptr literal(std::string_view word, property_ptr result) {
    if (static_cast<std::size_t>(end_ - p_) < word.size() ||
        std::string_view(p_, word.size()) != word)
      fail("unknown literal");
    p_ += word.size();
    return result;
  }

  property_ptr number() {
    const char* start = p_;
    if (p_ < end_ && *p_ == '-') ++p_;
    const char* digits = p_;
    while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
    if (p_ == digits) fail("value expected");
    if (*digits == '0' && p_ - digits > 1) fail("leading zero in a number");
    if (p_ < end_ && (*p_ == '.' || *p_ == 'e' || *p_ == 'E')) fail("not an integer");
    std::int64_t n = 0;
    const auto r = std::from_chars(start, p_, n);
    if (r.ec != std::errc() || r.ptr != p_) fail("integer out of 64-bit range");
    return zelcore::make_int(n);
  }

  property_ptr list(std::size_t depth) {
    check_depth(depth + 1);
    zelcore::property_list::list_type values;
    if (!next_is(']')) {
      for (;;) {
        values.push_back(value(depth + 1));
        if (next_is(']')) break;
        expect(',');
      }
    }
    ++p_;
    return property_ptr(new zelcore::property_list(std::move(values)));
  }

  // After '{': a tree, or one of the escape forms.
  property_ptr object(std::size_t depth) {
    check_depth(depth + 1);
    if (next_is('}')) {
      ++p_;
      return property_ptr(new properties(false));
    }
    expect('"');
    std::string_view key = string();
    if (!key.empty() && key[0] == '~') return escape(std::string(key), depth);
    for (;;) {
      // The key is stored before the value is read: reading it reuses the scratch of `key`.
      pending(depth).emplace_back(key.data(), key.size());
      expect(':');
      // Deeper levels fill other vectors: the stored key stays where it is meanwhile.
      value_key_ = pending(depth).back().first;
      property_ptr child = value(depth + 1);
      value_key_ = std::string_view();
      pending(depth).back().second = std::move(child);
      if (next_is('}')) break;
      expect(',');
      expect('"');
      key = string();
      if (!key.empty() && key[0] == '~') fail("a key beginning with '~' outside an escape form");
    }
    ++p_;
    return tree_of_pending(depth);
  }

  property_ptr escape(const std::string& key, std::size_t depth) {
    expect(':');
    if (key == "~x") {
      std::string bytes = hex_body();
      expect('}');
      return zelcore::make_string(std::move(bytes));
    }
    if (key != "~o") fail("unknown escape form");
    expect('[');
    if (!next_is(']')) {
      for (;;) {
        std::string child_key = escaped_key();
        expect(',');
        property_ptr child = value(depth + 1);
        pending(depth).emplace_back(std::move(child_key), std::move(child));
        if (next_is(']')) break;
        expect(',');
      }
    }
    ++p_;
    expect('}');
    return tree_of_pending(depth);
  }

  // The children read so far of the tree at `depth`, kept in vectors that outlive the reader,
  // so that a tree's children take one allocation of their exact size.
  properties::container& pending(std::size_t depth) {
    if (pending_.size() <= depth) pending_.resize(depth + 1);
    return pending_[depth];
  }

  property_ptr tree_of_pending(std::size_t depth) {
    properties::container& children = pending(depth);
    properties::container exact(std::make_move_iterator(children.begin()),
                                std::make_move_iterator(children.end()));
    children.clear();
    return property_ptr(new properties(std::move(exact)));
  }

  // A key inside "~o": a string, or {"~x":"<hex>"}.
  std::string escaped_key() {
    skip_space();
    if (p_ < end_ && *p_ == '"') {
      ++p_;
      return std::string(string());
    }
    expect('{');
    expect('"');
    if (string() != "~x") fail("key expected");
    expect(':');
    std::string bytes = hex_body();
    expect('}');
    return bytes;
  }

  std::string hex_body() {
    expect('"');
    const std::string_view digits = string();
    if (digits.size() % 2) fail("odd number of hex digits");
    std::string bytes;
    bytes.reserve(digits.size() / 2);
    for (std::size_t i = 0; i < digits.size(); i += 2) {
      const int high = hex_value(digits[i]);
      const int low = hex_value(digits[i + 1]);
      if (high < 0 || low < 0) fail("bad hex digit");
      bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
  }

  static int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  // After the opening quote; consumes the closing one. A view of the text itself when the
  // string holds no escape, else of the unescaped bytes in a scratch string that the next call
  // reuses.
  std::string_view string() {
    const char* const start = p_;
    p_ = skip_plain(p_, end_);
    if (p_ < end_ && *p_ == '"') return {start, static_cast<std::size_t>(p_++ - start)};
    std::string& out = scratch_;
    out.clear();
    const char* run = start;
    for (;;) {
      if (p_ == end_) fail("unterminated string");
      const unsigned char c = static_cast<unsigned char>(*p_);
      if (c == '"') break;
      if (c < 0x20) fail("control character in a string");
      if (c != '\\') {
        ++p_;
        continue;
      }
      out.append(run, static_cast<std::size_t>(p_ - run));
      ++p_;
      if (p_ == end_) fail("unterminated string");
      switch (*p_++) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '/': out += '/'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': append_utf8(out, code_point()); break;
        default: fail("unknown escape in a string");
      }
      run = p_;
    }
    out.append(run, static_cast<std::size_t>(p_ - run));
    ++p_;
    return out;
  }

  std::uint32_t hex4() {
    if (end_ - p_ < 4) fail("short \\u escape");
    std::uint32_t code = 0;
    for (int i = 0; i < 4; ++i) {
      const int digit = hex_value(*p_++);
      if (digit < 0) fail("bad hex digit");
      code = code << 4 | static_cast<std::uint32_t>(digit);
    }
    return code;
  }

  std::uint32_t code_point() {
    const std::uint32_t code = hex4();
    if (code >= 0xDC00 && code <= 0xDFFF) fail("lone low surrogate");
    if (code < 0xD800 || code > 0xDBFF) return code;
    if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') fail("lone high surrogate");
    p_ += 2;
    const std::uint32_t low = hex4();
    if (low < 0xDC00 || low > 0xDFFF) fail("lone high surrogate");
    return 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
  }

  static void append_utf8(std::string& out, std::uint32_t code) {
    if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | code >> 6);
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      out += static_cast<char>(0xE0 | code >> 12);
      out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | code >> 18);
      out += static_cast<char>(0x80 | (code >> 12 & 0x3F));
      out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }

  void check_depth(std::size_t depth) const {
    if (depth > json_max_depth) fail("nesting deeper than " + std::to_string(json_max_depth));
  }

  const char* begin_;
  const char* p_;
  const char* end_;
  std::vector<properties::container>& pending_;
  shared_strings* const strings_;
  std::string_view value_key_;  // the key of the object value being read, if it is one
  std::string scratch_;
};

}  // namespace

bool is_utf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  while (p < end) {
    const std::size_t n = utf8_length(p, static_cast<std::size_t>(end - p));
    if (n == 0) return false;
    p += n;
  }
  return true;
}

void write_json(const properties& tree, zelbase::encoder_network& out, json_form form) {
  writer(out, form).tree(tree, 1);
}

properties read_json(std::string_view text, shared_strings* strings) {
  thread_local std::vector<properties::container> pending;
  return reader(text, pending, strings).record();
}

property_ptr shared_strings::get(std::string_view key, std::string_view text) {
  auto k = keys_.find(std::string(key));
  if (k == keys_.end()) k = keys_.emplace(std::string(key), key_stats{}).first;
  key_stats& stats = k->second;
  if (stats.lookups >= trial_lookups && stats.hits * 4 < stats.lookups)
    return zelcore::make_string(std::string(text));
  ++stats.lookups;
  const auto found = seen_.find(text);
  if (found != seen_.end()) {
    ++stats.hits;
    return found->second;
  }
  property_ptr made = zelcore::make_string(std::string(text));
  seen_.emplace(static_cast<const zelcore::property_string&>(*made).value(), made);
  return made;
}

}  // namespace zelcapi::store_detail
