// The zelp wire codec. Payloads are MessagePack written by zelcore's encoder and read by
// zelcore's decoder, so packets carry property trees exactly as the tree encodes them.
#include "zelnet/codec.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <optional>

#include "zelbase/encoder_network.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelnet::zelp {

namespace {

constexpr const char* source_file = "code\\platform\\zelnet\\src\\codec";
constexpr std::string_view hello_magic = "zelp";

[[noreturn]] void raise_packet(const std::string& reason) {
  zelbase::es::arg::raise(source_file, __LINE__, "invalid packet: " + reason);
}

[[noreturn]] void raise_hello(const std::string& reason) {
  zelbase::es::arg::raise(source_file, __LINE__, "invalid hello: " + reason);
}

// Starts a frame: room for the length, filled in by write_length.
void start_frame(zelbase::encoder_network& out) { out.write("\0\0\0\0", frame_header_size); }

// Fills in the length of the frame that starts at `start` and runs to the end of `out`.
void write_length(zelbase::encoder_network& out, std::size_t start) {
  const std::size_t payload = out.size() - start - frame_header_size;
  if (payload > std::numeric_limits<std::uint32_t>::max()) {
    zelbase::es::arg::raise(
        source_file, __LINE__,
        zelbase::string_with_format("a payload of %zu bytes does not fit in a frame", payload));
  }
  char header[frame_header_size];
  for (std::size_t i = 0; i < frame_header_size; ++i) {
    header[i] = static_cast<char>((payload >> (8 * (frame_header_size - 1 - i))) & 0xff);
  }
  out.overwrite(start, header, frame_header_size);
}

std::uint32_t read_length(const char* p) {
  const auto* b = reinterpret_cast<const unsigned char*>(p);
  return (std::uint32_t{b[0]} << 24) | (std::uint32_t{b[1]} << 16) | (std::uint32_t{b[2]} << 8) |
         std::uint32_t{b[3]};
}

// The elements of a decoded array; raises through `fail` for anything else.
template <class Fail>
const zelcore::property_list::list_type& array_of(const zelcore::property_ptr& value,
                                                  std::size_t count, Fail fail) {
  if (value->kind() != zelcore::property::kind_list) {
    fail(zelbase::string_with_format("expected an array of %zu elements, got a %s", count,
                                     zelcore::property_kind_c_str(value->kind())));
  }
  const auto& items = static_cast<const zelcore::property_list&>(*value).value();
  if (items.size() != count) {
    fail(zelbase::string_with_format("expected an array of %zu elements, got %zu", count,
                                     items.size()));
  }
  return items;
}

}  // namespace

std::string encode_hello_frame(std::uint32_t version) {
  zelbase::encoder_network out;
  start_frame(out);
  out.pack_array(2);
  out.pack_string(hello_magic);
  out.pack_int(version);
  write_length(out, 0);
  return out.take();
}

std::uint32_t decode_hello(const char* data, std::size_t size) {
  zelcore::property_ptr value;
  try {
    value = zelcore::decode_property(data, size, 2);
  } catch (const zelbase::es::base& e) {
    raise_hello(e.message());
  }
  const auto& items = array_of(value, 2, raise_hello);
  const zelcore::property& magic = *items.front();
  const zelcore::property& version = *items.back();
  if (magic.kind() != zelcore::property::kind_string ||
      static_cast<const zelcore::property_string&>(magic).value() != hello_magic) {
    raise_hello("the first element is not \"zelp\"");
  }
  if (version.kind() != zelcore::property::kind_int) raise_hello("the version is not an int");
  const std::int64_t v = static_cast<const zelcore::property_int&>(version).value();
  if (v < 0 || v > std::numeric_limits<std::uint32_t>::max()) {
    raise_hello(
        zelbase::string_with_format("version %lld is out of range", static_cast<long long>(v)));
  }
  return static_cast<std::uint32_t>(v);
}

std::string encode_packet_frame(const packet& p) {
  zelbase::encoder_network out;
  append_packet_frame(p, out);
  return out.take();
}

void append_packet_frame(const packet& p, zelbase::encoder_network& out) {
  const std::size_t start = out.size();
  try {
    start_frame(out);
    out.pack_array(3);
    out.pack_int(p.get_type());
    out.pack_string(p.get_name());
    p.get_properties().encode(out);
    write_length(out, start);
  } catch (...) {
    out.truncate(start);
    throw;
  }
}

namespace {

// The form that every sender writes: an array of three, the type as a positive fixint or a
// uint 8, the name as a fixstr or a str 8, then the map. It is read without building the outer
// array, its type and its name as properties, which a packet would only copy and free: a
// stream of small notifications spends a good part of its decoding there. Any other form, and
// any failure, goes the general way, which gives every error its text; the map is held to one
// level less, as it sits one level down there.
std::optional<packet> decode_common_packet(const char* data, std::size_t size,
                                           std::size_t memory_per_byte) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  if (size < 4 || bytes[0] != 0x93) return std::nullopt;
  std::size_t at = 1;
  std::int32_t type = 0;
  if (bytes[at] <= 0x7f) {
    type = bytes[at++];
  } else if (bytes[at] == 0xcc && size - at > 1) {
    type = bytes[at + 1];
    at += 2;
  } else {
    return std::nullopt;
  }
  if (at >= size) return std::nullopt;
  std::size_t name_size = 0;
  if ((bytes[at] & 0xe0) == 0xa0) {
    name_size = bytes[at++] & 0x1f;
  } else if (bytes[at] == 0xd9 && size - at > 1) {
    name_size = bytes[at + 1];
    at += 2;
  } else {
    return std::nullopt;
  }
  // The name, and at least the map's first byte after it.
  if (size - at <= name_size) return std::nullopt;
  const char* name = data + at;
  at += name_size;
  try {
    return packet(
        type, std::string(name, name_size),
        zelcore::decode_properties(data + at, size - at, zelcore::default_decode_max_depth - 1,
                                   memory_per_byte));
  } catch (const zelbase::es::base&) {
    return std::nullopt;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace

packet decode_packet(const char* data, std::size_t size, std::size_t memory_per_byte) {
  if (std::optional<packet> common = decode_common_packet(data, size, memory_per_byte)) {
    return std::move(*common);
  }
  zelcore::property_ptr value;
  try {
    value =
        zelcore::decode_property(data, size, zelcore::default_decode_max_depth, memory_per_byte);
  } catch (const zelbase::es::base& e) {
    raise_packet(e.message());
  } catch (const std::bad_alloc&) {
    // The partial tree is gone by now: the link that brought the packet is dropped, the
    // client goes on.
    raise_packet(
        zelbase::string_with_format("not enough memory to decode a %zu-byte payload", size));
  }
  const auto& items = array_of(value, 3, raise_packet);
  auto item = items.begin();
  const zelcore::property& type = **item++;
  const zelcore::property& name = **item++;
  const zelcore::property& props = **item;
  if (type.kind() != zelcore::property::kind_int) {
    raise_packet(std::string("the type is a ") + zelcore::property_kind_c_str(type.kind()) +
                 ", not an int");
  }
  const std::int64_t t = static_cast<const zelcore::property_int&>(type).value();
  if (t < 0 || t > 255) {
    raise_packet(
        zelbase::string_with_format("type %lld is out of range 0..255", static_cast<long long>(t)));
  }
  if (name.kind() != zelcore::property::kind_string) {
    raise_packet(std::string("the name is a ") + zelcore::property_kind_c_str(name.kind()) +
                 ", not a string");
  }
  if (props.kind() != zelcore::property::kind_properties) {
    raise_packet(std::string("the properties are a ") + zelcore::property_kind_c_str(props.kind()) +
                 ", not a map");
  }
  return packet(static_cast<std::int32_t>(t),
                static_cast<const zelcore::property_string&>(name).value(),
                static_cast<const zelcore::properties&>(props));
}

void frame_decoder::feed(const char* data, std::size_t size) {
  if (pos_ == buffer_.size()) {
    // A buffer that held a large frame is given back once that frame is handled: a client that
    // loaded a snapshot of hundreds of megabytes keeps none of it for the small frames after.
    if (buffer_.capacity() > retained_capacity) {
      std::vector<char>().swap(buffer_);
    } else {
      buffer_.clear();
    }
    pos_ = 0;
  } else if (pos_ > 0 && pos_ >= buffer_.size() / 2) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(pos_));
    pos_ = 0;
  }
  const std::size_t need = buffer_.size() + size;
  if (need > buffer_.capacity()) {
    // Once a frame's length is known (and admitted), its whole size is taken at once, so that
    // a large frame is not copied at every doubling; before that, the buffer grows
    // geometrically. Either way it never holds more than one feed past the frame in progress.
    std::size_t grow = std::max(need, 2 * buffer_.capacity());
    const std::size_t frame = expected();
    if (frame != 0 && frame - frame_header_size <= limit_) grow = std::max(need, pos_ + frame);
    buffer_.reserve(grow);
  }
  buffer_.insert(buffer_.end(), data, data + size);
}

std::size_t frame_decoder::expected() const noexcept {
  if (buffered() < frame_header_size) return 0;
  return frame_header_size + read_length(buffer_.data() + pos_);
}

bool frame_decoder::has_frame() const noexcept {
  const std::size_t size = expected();
  return size != 0 && size - frame_header_size <= limit_ && buffered() >= size;
}

void frame_decoder::admit(std::size_t payload) const {
  if (payload <= limit_) return;
  zelbase::es::arg::raise(
      source_file, __LINE__,
      zelbase::string_with_format("frame of %zu bytes exceeds the limit of %zu bytes", payload,
                                  limit_));
}

bool frame_decoder::next(std::string_view& payload) {
  if (buffered() < frame_header_size) return false;
  const std::uint32_t length = read_length(buffer_.data() + pos_);
  admit(length);
  if (buffered() - frame_header_size < length) return false;
  payload = std::string_view(buffer_.data() + pos_ + frame_header_size, length);
  pos_ += frame_header_size + length;
  return true;
}

}  // namespace zelnet::zelp
