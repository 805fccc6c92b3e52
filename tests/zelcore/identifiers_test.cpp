// UUIDs and SHA-1 digests.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "zelcore/identifiers.h"

TEST(StringUuid, IsARandomVersion4UuidInLowerCase) {
  const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = zelcore::string_uuid(false);
    EXPECT_TRUE(std::regex_match(id, form)) << id;
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
