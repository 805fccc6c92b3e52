// UUIDs and SHA-1 digests.
#include <gtest/gtest.h>

#include <set>

#include "zelcore/identifiers.h"

namespace {
// 8-4-4-4-12 lower-case hex digits, version 4, RFC 4122 variant.
bool is_v4_uuid(const std::string& id) {
  if (id.size() != 36) return false;
  for (std::size_t i = 0; i < id.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (id[i] == '-')) return false;
    if (!dash && std::string("0123456789abcdef").find(id[i]) == std::string::npos) return false;
  }
  return id[14] == '4' && std::string("89ab").find(id[19]) != std::string::npos;
}
}  // namespace

TEST(StringUuid, IsARandomVersion4UuidInLowerCase) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = zelcore::string_uuid(false);
    EXPECT_TRUE(is_v4_uuid(id)) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(StringUuid, UpperCaseOnRequest) {
  const std::string id = zelcore::string_uuid(true);
  EXPECT_EQ(id.size(), 36u);
  EXPECT_EQ(id.find_first_of("abcdef"), std::string::npos);
}

TEST(Sha1Hex, MatchesKnownDigests) {
  EXPECT_EQ(zelcore::string_hash_SHA1_hex(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(zelcore::string_hash_SHA1_hex("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(zelcore::string_hash_SHA1_hex(std::string("a\0b", 3)),
            "4a3dec2d1f8245280855c42db0ee4239f917fdb8");
}
