// Reading work description files with yaml-cpp, keeping the place of every value.
#include "description_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include <yaml-cpp/yaml.h>

#include "options.h"
#include "zelbase/utf8.h"

namespace zelctl {

namespace {

using zelcore::properties;
using zelcore::property_list;
using zelcore::property_ptr;

const std::string tag_str = "tag:yaml.org,2002:str";
const std::string tag_int = "tag:yaml.org,2002:int";
const std::string tag_bool = "tag:yaml.org,2002:bool";
const std::string tag_null = "tag:yaml.org,2002:null";

text_place place_of_mark(const YAML::Mark& mark) {
  // yaml-cpp counts from 0, and gives -1 when it knows no place.
  return {std::max(mark.line, 0) + 1, std::max(mark.column, 0) + 1};
}

std::string child(const std::string& path, const std::string& key) {
  return path + "/" + zelcore::property_reference_escape(key);
}

bool read_bool(const std::string& text, bool& out) {
  for (const char* t : {"true", "True", "TRUE"}) {
    if (text == t) return out = true, true;
  }
  for (const char* f : {"false", "False", "FALSE"}) {
    if (text == f) return out = false, true;
  }
  return false;
}

const char* node_kind(const YAML::Node& n) {
  switch (n.Type()) {
    case YAML::NodeType::Map: return "a map";
    case YAML::NodeType::Sequence: return "a list";
    case YAML::NodeType::Null: return "null";
    default: return "a scalar";
  }
}

// Whether the quoted scalar that begins at `mark` is closed before the end of `text`. yaml-cpp
// takes a quote left open at the end of the text as a string running to its end, which would
// swallow the rest of the description silently.
bool quote_closed(const std::string& text, const YAML::Mark& mark) {
  if (mark.pos < 0 || static_cast<std::size_t>(mark.pos) >= text.size()) return true;
  const char quote = text[static_cast<std::size_t>(mark.pos)];
  if (quote != '"' && quote != '\'') return true;
  for (std::size_t i = static_cast<std::size_t>(mark.pos) + 1; i < text.size(); ++i) {
    if (quote == '"' && text[i] == '\\') {
      ++i;
    } else if (text[i] == quote) {
      if (quote == '"' || i + 1 == text.size() || text[i + 1] != '\'') return true;
      ++i;  // '' inside single quotes
    }
  }
  return false;
}

class reader {
 public:
  reader(const std::string& text, description_text& out) : text_(text), out_(out) {}

  // The value of `n`, or null when the reader refused it (and said why).
  property_ptr value(const YAML::Node& n, const std::string& path, std::size_t depth) {
    if (++count_ > max_description_values) {
      // What is left would be read only in part: nothing of it is worth checking.
      if (count_ == max_description_values + 1) {
        refuse(n.Mark(), "",
               "the description holds more than " + std::to_string(max_description_values) +
                   " values");
      }
      return nullptr;
    }
    if (depth > max_description_depth) {
      refuse(n.Mark(), path,
             "values nest deeper than " + std::to_string(max_description_depth) + " levels");
      return nullptr;
    }
    switch (n.Type()) {
      case YAML::NodeType::Map: return map(n, path, depth);
      case YAML::NodeType::Sequence: return list(n, path, depth);
      case YAML::NodeType::Scalar: return scalar(n, path);
      default: refuse(n.Mark(), path, "no value (null)"); return nullptr;
    }
  }

  void error(const YAML::Mark& mark, const std::string& path, std::string message) {
    out_.errors.push_back({place_of_mark(mark), path, std::move(message)});
  }
  // The rest of the text is inside the string: nothing after it was read, and no other error of
  // the description is worth showing.
  void unclosed_quote(const YAML::Mark& mark, const std::string& path) {
    refuse(mark, path, "a quoted string is not closed before the end of the file");
    out_.refused.insert("");
  }
  // An error about a value that the tree does not hold as written.
  void refuse(const YAML::Mark& mark, const std::string& path, std::string message) {
    error(mark, path, std::move(message));
    out_.refused.insert(path);
  }

 private:
  property_ptr map(const YAML::Node& n, const std::string& path, std::size_t depth) {
    zelbase::ptr_refcount<properties> tree(new properties());
    std::map<std::string, text_place> seen;
    for (auto it = n.begin(); it != n.end(); ++it) {
      // Copies (handles to the same nodes): the iterator's -> gives a proxy that holds the pair
      // only until the end of the expression.
      const YAML::Node key = it->first;
      const YAML::Node entry = it->second;
      if (key.Type() != YAML::NodeType::Scalar) {
        error(key.Mark(), path, std::string("a key is a string, not ") + node_kind(key));
        continue;
      }
      if (key.Tag() == "!" && !quote_closed(text_, key.Mark())) {
        unclosed_quote(key.Mark(), path);
        continue;
      }
      const std::string& name = key.Scalar();
      const std::string at = child(path, name);
      const text_place place = place_of_mark(key.Mark());
      const auto [first, fresh] = seen.emplace(name, place);
      if (!fresh) {
        error(key.Mark(), at,
              "key '" + name + "' is given twice (first at " + std::to_string(first->second.line) +
                  ":" + std::to_string(first->second.column) + ")");
        continue;
      }
      out_.places[at] = place;
      if (entry.Type() == YAML::NodeType::Null) {
        // A null's own mark may be on the next line: the key is where it was left empty.
        refuse(key.Mark(), at, "'" + name + "' has no value");
        ++count_;
        continue;
      }
      if (property_ptr v = value(entry, at, depth + 1)) (*tree)[name] = std::move(v);
    }
    return tree;
  }

  property_ptr list(const YAML::Node& n, const std::string& path, std::size_t depth) {
    zelbase::ptr_refcount<property_list> out(new property_list());
    std::size_t index = 0;
    for (const YAML::Node& e : n) {
      const std::string at = path + "/" + std::to_string(index++);
      out_.places[at] = place_of_mark(e.Mark());
      property_ptr v = value(e, at, depth + 1);
      // A refused element keeps its index, so that the later elements keep their paths; the
      // converter's errors about it are left out (place_errors).
      out->push_back(v ? v : zelcore::make_string(""));
    }
    return out;
  }

  property_ptr scalar(const YAML::Node& n, const std::string& path) {
    const std::string& text = n.Scalar();
    const std::string& tag = n.Tag();
    std::int64_t i = 0;
    bool b = false;
    if (tag == "!" && !quote_closed(text_, n.Mark())) {
      unclosed_quote(n.Mark(), path);
      return nullptr;
    }
    if (tag == "!" || tag == tag_str) return zelcore::make_string(text);
    if (tag == "?") {
      if (zelcapi::read_description_int(text, i)) return zelcore::make_int(i);
      if (read_bool(text, b)) return zelcore::make_bool(b);
      return zelcore::make_string(text);
    }
    if (tag == tag_int) {
      if (zelcapi::read_description_int(text, i)) return zelcore::make_int(i);
      refuse(n.Mark(), path, "'" + text + "' is not an int");
      return nullptr;
    }
    if (tag == tag_bool) {
      if (read_bool(text, b)) return zelcore::make_bool(b);
      refuse(n.Mark(), path, "'" + text + "' is not a bool (true or false)");
      return nullptr;
    }
    if (tag == tag_null) {
      refuse(n.Mark(), path, "no value (null)");
      return nullptr;
    }
    refuse(n.Mark(), path,
           "the tag '" + tag + "' is not taken here (only !!str, !!int and !!bool)");
    return nullptr;
  }

  const std::string& text_;
  description_text& out_;
  std::size_t count_ = 0;
};

}  // namespace

text_place description_text::place_of(const std::string& path) const {
  std::string p = path;
  for (;;) {
    const auto found = places.find(p);
    if (found != places.end()) return found->second;
    const std::size_t slash = p.rfind('/');
    if (slash == std::string::npos) return {};
    p.erase(slash);
  }
}

description_text read_description_text(const std::string& file_text) {
  description_text out;
  // UTF-8 only, without its byte order mark: the places that yaml-cpp gives are then byte
  // offsets into `text`, which the check of quotes relies on.
  const std::string utf8_bom = "\xef\xbb\xbf";
  const std::string text =
      file_text.compare(0, utf8_bom.size(), utf8_bom) == 0 ? file_text.substr(3) : file_text;
  const std::string head = text.substr(0, 4);
  if (head.find('\0') != std::string::npos || head.rfind("\xfe\xff", 0) == 0 ||
      head.rfind("\xff\xfe", 0) == 0) {
    out.errors.push_back({{}, "", "the file is not UTF-8 text (UTF-16 or UTF-32, or binary)"});
    out.refused.insert("");
    return out;
  }
  std::vector<YAML::Node> documents;
  try {
    documents = YAML::LoadAll(text);
  } catch (const YAML::Exception& e) {
    out.errors.push_back({place_of_mark(e.mark), "", e.msg});
    out.refused.insert("");
    return out;
  }
  reader r(text, out);
  if (documents.empty()) {
    r.refuse(YAML::Mark(), "", "the file holds no description");
    return out;
  }
  if (documents.size() > 1) {
    r.error(documents[1].Mark(), "",
            "the file holds more than one description (the second begins here)");
  }
  const YAML::Node& root = documents[0];
  out.places[""] = place_of_mark(root.Mark());
  if (root.Type() != YAML::NodeType::Map) {
    r.refuse(root.Mark(), "", std::string("a description is a map, not ") + node_kind(root));
    return out;
  }
  const property_ptr tree = r.value(root, "", 0);
  if (tree) out.tree = static_cast<const properties&>(*tree);
  return out;
}

description_text read_description_file(const std::string& path) {
  const auto cannot_read = [&path](const std::string& why) {
    return failure(exit_failure, "cannot read '" + path + "': " + why);
  };
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                       &std::fclose);
  if (!file) throw cannot_read(std::strerror(errno));
  std::string text;
  char buffer[65536];
  for (;;) {
    const std::size_t n = std::fread(buffer, 1, sizeof buffer, file.get());
    text.append(buffer, n);
    if (text.size() > max_description_bytes) {
      throw cannot_read("larger than " + std::to_string(max_description_bytes) + " bytes");
    }
    if (n < sizeof buffer) break;
  }
  if (std::ferror(file.get())) throw cannot_read(std::strerror(errno));
  return read_description_text(text);
}

std::string printable_text(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  const auto escape = [&out](unsigned char byte) {
    static const char digits[] = "0123456789abcdef";
    out += "\\x";
    out += digits[byte >> 4];
    out += digits[byte & 0xf];
  };
  const auto byte_at = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char lead = byte_at(i);
    if (lead < 0x20 || lead == 0x7f) {
      escape(lead);
      ++i;
      continue;
    }
    if (lead < 0x80) {
      out += static_cast<char>(lead);
      ++i;
      continue;
    }
    const zelbase::utf8_sequence sequence = zelbase::read_utf8(
        reinterpret_cast<const unsigned char*>(text.data()) + i, text.size() - i);
    // The C1 control characters (U+0080 to U+009F) steer terminals as the C0 ones do.
    const bool control = sequence.valid && lead == 0xc2 && byte_at(i + 1) <= 0x9f;
    if (!sequence.valid || control) {
      for (std::size_t k = 0; k < (control ? 2 : 1); ++k) escape(byte_at(i + k));
      i += control ? 2 : 1;
      continue;
    }
    out.append(text, i, sequence.length);
    i += sequence.length;
  }
  return out;
}

std::vector<placed_error> place_errors(const description_text& text,
                                       const zelcapi::work_description& converted) {
  std::vector<placed_error> out = text.errors;
  // A refused value or anything inside it.
  const auto covered = [&text](std::string path) {
    for (;;) {
      if (text.refused.count(path) != 0) return true;
      const std::size_t slash = path.rfind('/');
      if (slash == std::string::npos) return false;
      path.erase(slash);
    }
  };
  for (const zelcapi::description_error& e : converted.errors) {
    if (e.setting >= 0 || covered(e.path)) continue;
    out.push_back({text.place_of(e.path), e.path, e.message});
  }
  for (placed_error& e : out) {
    e.path = printable_text(e.path);
    e.message = printable_text(e.message);
  }
  std::stable_sort(out.begin(), out.end(), [](const placed_error& a, const placed_error& b) {
    return a.place.line != b.place.line ? a.place.line < b.place.line
                                        : a.place.column < b.place.column;
  });
  return out;
}

}  // namespace zelctl
