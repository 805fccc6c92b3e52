// printf-style formatting and the shared empty string.
#include <gtest/gtest.h>

#include "zelbase/strings.h"

TEST(StringWithFormat, FormatsLikePrintf) {
  EXPECT_EQ(zelbase::string_with_format("state does not have item type %d", 7),
            "state does not have item type 7");
  EXPECT_EQ(zelbase::string_with_format("%s-%u", "a", 3u), "a-3");
}

TEST(StringWithFormat, HandlesResultsLongerThanItsSmallBuffer) {
  const std::string long_text(5000, 'y');
  EXPECT_EQ(zelbase::string_with_format("<%s>", long_text.c_str()), "<" + long_text + ">");
}

TEST(StringEmptyString, IsOneSharedEmptyString) {
  EXPECT_TRUE(zelbase::string_empty_string().empty());
  EXPECT_EQ(&zelbase::string_empty_string(), &zelbase::string_empty_string());
}
