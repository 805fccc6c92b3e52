// The wire codec on its own: frames, hellos and packets, fed in random fragments.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "support/raised_message.h"
#include "zelbase/encoder_network.h"
#include "zelbase/exceptions.h"
#include "zelnet/codec.h"

namespace {

using namespace zelnet::zelp;

std::string arg_message(const std::function<void()>& f) {
  return zeltest::raised_message<zelbase::es::arg>(f);
}

packet sample(int i) {
  packet p(i % 3 + 2, "name-" + std::to_string(i));
  p.get_properties().set_int_value("i", i);
  p.get_properties().set_string_value("text", std::string(static_cast<std::size_t>(i % 50), 'x'));
  zelcore::properties nested;
  nested.set_bool_value("flag", i % 2 == 0);
  p.get_properties().set_properties_value("nested", nested);
  return p;
}

std::string payload_of(const std::string& frame) { return frame.substr(frame_header_size); }

TEST(Codec, SmallPacketBytesAreExact) {
  EXPECT_EQ(encode_packet_frame(packet(2, "a")), std::string("\x00\x00\x00\x05\x93\x02\xa1"
                                                             "a\x80",
                                                             9));
  packet p(4, "r");
  p.get_properties().set_int_value("k", 1);
  EXPECT_EQ(encode_packet_frame(p), std::string("\x00\x00\x00\x08\x93\x04\xa1r\x81\xa1k\x01", 12));
}

TEST(Codec, HelloBytesAreExact) {
  EXPECT_EQ(encode_hello_frame(2), std::string("\x00\x00\x00\x07\x92\xa4zelp\x02", 11));
  const std::string hello = payload_of(encode_hello_frame(300));
  EXPECT_EQ(decode_hello(hello.data(), hello.size()), 300u);
}

TEST(Codec, InvalidHellosAreRefused) {
  const std::string wrong_magic("\x92\xa4zelq\x02", 7);
  EXPECT_EQ(arg_message([&] { decode_hello(wrong_magic.data(), wrong_magic.size()); }),
            "invalid hello: the first element is not \"zelp\"");
  const std::string negative("\x92\xa4zelp\xff", 7);
  EXPECT_EQ(arg_message([&] { decode_hello(negative.data(), negative.size()); }),
            "invalid hello: version -1 is out of range");
  const std::string packet_frame = payload_of(encode_packet_frame(packet(2, "a")));
  EXPECT_EQ(arg_message([&] { decode_hello(packet_frame.data(), packet_frame.size()); }),
            "invalid hello: expected an array of 2 elements, got 3");
}

TEST(Codec, AppendedFramesFollowWhatTheEncoderHeldAndMatchTheWholeFrames) {
  zelbase::encoder_network queue;
  queue.write("xy", 2);
  append_packet_frame(packet(2, "a"), queue);
  append_packet_frame(sample(3), queue);
  EXPECT_EQ(std::string(queue.view()),
            "xy" + encode_packet_frame(packet(2, "a")) + encode_packet_frame(sample(3)));
}

TEST(Codec, AnEncoderGivesItsBufferBackAndKeepsWorking) {
  zelbase::encoder_network out;
  const std::string big(3 << 20, 'b');
  out.write(big.data(), big.size());
  EXPECT_GE(out.capacity(), big.size());
  out.truncate(2);
  EXPECT_EQ(std::string(out.view()), "bb");
  out.overwrite(1, "c", 1);
  EXPECT_EQ(std::string(out.view()), "bc");
  out.release();
  EXPECT_EQ(out.size(), 0u);
  EXPECT_LT(out.capacity(), std::size_t{4096});
  append_packet_frame(packet(2, "a"), out);
  EXPECT_EQ(std::string(out.view()), encode_packet_frame(packet(2, "a")));
}

TEST(Codec, PacketRoundTrip) {
  const packet p = sample(7);
  const std::string payload = payload_of(encode_packet_frame(p));
  const packet back = decode_packet(payload.data(), payload.size());
  EXPECT_EQ(back.get_type(), p.get_type());
  EXPECT_EQ(back.get_name(), p.get_name());
  EXPECT_TRUE(back.get_properties() == p.get_properties());
}

// Packets of every form of type and name (fixint and uint 8 types, fixstr, str 8 and str 16
// names) decode to what was encoded, whichever way the decoder reads them.
TEST(Codec, EveryFormOfTypeAndNameDecodesToThePacketSent) {
  for (const int type : {0, 2, 4, 127, 128, 255}) {
    for (const std::size_t name_size : {0, 1, 31, 32, 255, 256, 70000}) {
      packet p = sample(type);
      p = packet(type, std::string(name_size, 'n'), p.get_properties());
      const std::string payload = payload_of(encode_packet_frame(p));
      const packet back = decode_packet(payload.data(), payload.size());
      EXPECT_EQ(back.get_type(), type);
      EXPECT_EQ(back.get_name(), p.get_name());
      EXPECT_TRUE(back.get_properties() == p.get_properties()) << type << " " << name_size;
    }
  }
}

// A packet's map may nest as deep as the limit allows counting the packet's own array, and bytes
// after the map are refused, with the texts of the general decoder.
TEST(Codec, TheMapsDepthAndTrailingBytesAreJudgedWithThePacketsArray) {
  const auto nested = [](std::size_t levels) {
    std::string map;
    for (std::size_t i = 1; i < levels; ++i) map += "\x81\xa1k";
    map += "\x80";
    return std::string("\x93\x02\xa1n", 4) + map;
  };
  const std::string deepest = nested(zelcore::default_decode_max_depth - 1);
  EXPECT_NO_THROW(decode_packet(deepest.data(), deepest.size()));
  const std::string too_deep = nested(zelcore::default_decode_max_depth);
  EXPECT_EQ(arg_message([&] { decode_packet(too_deep.data(), too_deep.size()); }),
            "invalid packet: cannot decode property: nesting deeper than 256 levels");
  const std::string trailing = payload_of(encode_packet_frame(sample(3))) + std::string(1, '\0');
  EXPECT_EQ(arg_message([&] {
              decode_packet(trailing.data(), trailing.size());
            }).rfind("invalid packet: cannot decode property:", 0),
            0u);
}

TEST(Codec, WrongShapesAreRefusedWithTheirReason) {
  const auto message = [](const std::string& bytes) {
    return arg_message([&] { decode_packet(bytes.data(), bytes.size()); });
  };
  EXPECT_EQ(message(std::string("\x80", 1)),
            "invalid packet: expected an array of 3 elements, got a properties");
  EXPECT_EQ(message(std::string("\x92\x02\xa1"
                                "a",
                                4)),
            "invalid packet: expected an array of 3 elements, got 2");
  EXPECT_EQ(message(std::string("\x93\xa1t\xa1n\x80", 6)),
            "invalid packet: the type is a string, not an int");
  EXPECT_EQ(message(std::string("\x93\xcd\x01\x00\xa1n\x80", 7)),
            "invalid packet: type 256 is out of range 0..255");
  EXPECT_EQ(message(std::string("\x93\x02\x02\x80", 4)),
            "invalid packet: the name is a int, not a string");
  EXPECT_EQ(message(std::string("\x93\x02\xa1n\x90", 5)),
            "invalid packet: the properties are a list, not a map");
  EXPECT_EQ(message(std::string("\xc1", 1)),
            "invalid packet: cannot decode property: malformed input at byte 0");
  EXPECT_EQ(message(std::string("\x93\x02\xa1n", 4)).rfind("invalid packet: cannot decode", 0), 0u);
}

TEST(FrameDecoder, ManyPacketsInOneFeed) {
  std::string stream;
  for (int i = 0; i < 20; ++i) stream += encode_packet_frame(sample(i));
  frame_decoder d;
  d.feed(stream.data(), stream.size());
  std::string_view payload;
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(d.next(payload));
    EXPECT_EQ(decode_packet(payload.data(), payload.size()).get_name(),
              "name-" + std::to_string(i));
  }
  EXPECT_FALSE(d.next(payload));
  EXPECT_EQ(d.buffered(), 0u);
}

TEST(FrameDecoder, RandomFragmentsGiveTheSamePackets) {
  std::string stream;
  for (int i = 0; i < 200; ++i) stream += encode_packet_frame(sample(i));
  std::mt19937 random(12345);
  for (int round = 0; round < 20; ++round) {
    frame_decoder d;
    std::size_t at = 0;
    int next = 0;
    while (at < stream.size()) {
      const std::size_t size =
          std::min<std::size_t>(stream.size() - at, random() % (round < 10 ? 3 : 400) + 1);
      d.feed(stream.data() + at, size);
      at += size;
      std::string_view payload;
      while (d.next(payload)) {
        const packet p = decode_packet(payload.data(), payload.size());
        ASSERT_EQ(p.get_name(), "name-" + std::to_string(next));
        ASSERT_EQ(p.get_properties().get_int_value("i"), next);
        ++next;
      }
    }
    EXPECT_EQ(next, 200);
    EXPECT_EQ(d.buffered(), 0u);
  }
}

TEST(FrameDecoder, PartialFrameIsHeldUntilComplete) {
  const std::string frame = encode_packet_frame(sample(3));
  frame_decoder d;
  std::string_view payload;
  d.feed(frame.data(), 2);
  EXPECT_FALSE(d.next(payload));
  EXPECT_EQ(d.expected(), 0u);
  d.feed(frame.data() + 2, 5);
  EXPECT_FALSE(d.next(payload));
  EXPECT_EQ(d.buffered(), 7u);
  EXPECT_EQ(d.expected(), frame.size());
  d.feed(frame.data() + 7, frame.size() - 7);
  EXPECT_TRUE(d.next(payload));
  EXPECT_EQ(payload.size(), frame.size() - frame_header_size);
}

TEST(FrameDecoder, LengthOverTheLimitIsRefusedBeforeThePayload) {
  frame_decoder d(100);
  const std::string header("\x00\x00\x00\x65", 4);
  d.feed(header.data(), header.size());
  std::string_view payload;
  EXPECT_EQ(arg_message([&] { d.next(payload); }),
            "frame of 101 bytes exceeds the limit of 100 bytes");
  frame_decoder exact(100);
  const std::string at_limit = std::string("\x00\x00\x00\x64", 4) + std::string(100, 'x');
  exact.feed(at_limit.data(), at_limit.size());
  EXPECT_TRUE(exact.next(payload));
  EXPECT_EQ(payload.size(), 100u);
}

TEST(FrameDecoder, FrameAtTheLimitReservesNoMoreThanTheLimitAndOneFeed) {
  constexpr std::size_t limit = 1 << 20;
  constexpr std::size_t chunk = 16000;
  std::string frame = std::string("\x00\x10\x00\x00", 4) + std::string(limit, 'p');
  frame += encode_packet_frame(packet(2, "after"));
  frame_decoder d(limit);
  std::size_t most = 0;
  std::size_t frames = 0;
  for (std::size_t at = 0; at < frame.size(); at += chunk) {
    d.feed(frame.data() + at, std::min(chunk, frame.size() - at));
    most = std::max(most, d.reserved());
    std::string_view payload;
    while (d.next(payload)) ++frames;
  }
  EXPECT_EQ(frames, 2u);
  EXPECT_LE(most, limit + frame_header_size + chunk);
}

TEST(FrameDecoder, ALargeFrameTakesItsWholeSizeOnceAndGivesItBackAfterwards) {
  constexpr std::size_t payload_size = 4 << 20;
  constexpr std::size_t chunk = 16000;
  const std::string frame = std::string("\x00\x40\x00\x00", 4) + std::string(payload_size, 'p');
  frame_decoder d(8 << 20);
  std::set<std::size_t> sizes_after_the_header;
  std::size_t frames = 0;
  for (std::size_t at = 0; at < frame.size(); at += chunk) {
    d.feed(frame.data() + at, std::min(chunk, frame.size() - at));
    if (at > 0) sizes_after_the_header.insert(d.reserved());
    std::string_view payload;
    while (d.next(payload)) ++frames;
  }
  EXPECT_EQ(frames, 1u);
  EXPECT_EQ(sizes_after_the_header, std::set<std::size_t>{frame.size()});
  const std::string small = encode_packet_frame(packet(2, "after"));
  d.feed(small.data(), small.size());
  std::string_view payload;
  ASSERT_TRUE(d.next(payload));
  EXPECT_LT(d.reserved(), std::size_t{1} << 20);
}

TEST(FrameDecoder, AFrameAboveTheLimitReservesNothingForItsAnnouncedSize) {
  frame_decoder d(1000);
  const std::string start = std::string("\x7f\x00\x00\x00", 4) + std::string(10, 'x');
  d.feed(start.data(), 6);
  d.feed(start.data() + 6, start.size() - 6);
  EXPECT_LT(d.reserved(), std::size_t{1000});
  std::string_view payload;
  EXPECT_EQ(arg_message([&] { d.next(payload); }),
            "frame of 2130706432 bytes exceeds the limit of 1000 bytes");
}

TEST(FrameDecoder, EmptyPayloadIsAFrame) {
  frame_decoder d;
  const std::string empty("\x00\x00\x00\x00", 4);
  d.feed(empty.data(), empty.size());
  std::string_view payload("x");
  EXPECT_TRUE(d.next(payload));
  EXPECT_TRUE(payload.empty());
  EXPECT_EQ(arg_message([&] { decode_packet(payload.data(), payload.size()); }),
            "invalid packet: cannot decode property: input is empty");
}

TEST(Packet, BounceKeyAndAccessors) {
  EXPECT_EQ(packet::bounce_property_id(), "bounce");
  packet p(3, "n");
  p.set_property("a", zelcore::make_int(1));
  EXPECT_EQ(p.get_properties().get_int_value("a"), 1);
  p.set_property("a", zelcore::property_ptr());
  EXPECT_FALSE(p.get_properties().is_present("a"));
  std::string text;
  p.describe(text);
  EXPECT_EQ(text.rfind("packet type 3 name 'n'", 0), 0u);
  packet copy;
  copy = p;
  EXPECT_EQ(copy.get_name(), "n");
}

}  // namespace

TEST(FrameDecoder, AStreamCutAtEveryOffsetAndFedInTwoPiecesGivesTheSamePackets) {
  std::string stream;
  for (int i = 0; i < 12; ++i) stream += encode_packet_frame(sample(i));
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    frame_decoder d;
    std::vector<std::string> names;
    std::string_view payload;
    d.feed(stream.data(), cut);
    while (d.next(payload))
      names.push_back(decode_packet(payload.data(), payload.size()).get_name());
    d.feed(stream.data() + cut, stream.size() - cut);
    while (d.next(payload))
      names.push_back(decode_packet(payload.data(), payload.size()).get_name());
    ASSERT_EQ(names.size(), 12u) << "cut at " << cut;
    for (int i = 0; i < 12; ++i)
      ASSERT_EQ(names[static_cast<std::size_t>(i)], "name-" + std::to_string(i));
    EXPECT_EQ(d.buffered(), 0u);
  }
}
