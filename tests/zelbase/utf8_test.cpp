// Reading UTF-8 one sequence at a time: well-formed characters, and the maximal subpart of what
// is not one.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "zelbase/utf8.h"

namespace {

// The sequences of `text` as (length, valid) pairs.
std::vector<std::pair<std::size_t, bool>> sequences(const std::string& text) {
  std::vector<std::pair<std::size_t, bool>> out;
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t i = 0; i < text.size();) {
    const zelbase::utf8_sequence s = zelbase::read_utf8(p + i, text.size() - i);
    out.emplace_back(s.length, s.valid);
    i += s.length;
  }
  return out;
}

using seqs = std::vector<std::pair<std::size_t, bool>>;

TEST(ReadUtf8, WellFormedCharactersOfEachLength) {
  EXPECT_EQ(sequences("a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"),
            (seqs{{1, true}, {2, true}, {3, true}, {4, true}}));
  EXPECT_EQ(sequences("\xf4\x8f\xbf\xbf"), (seqs{{4, true}}));  // U+10FFFF
}

TEST(ReadUtf8, OverlongFormsSurrogatesAndCodePointsPastTheLastAreRefused) {
  EXPECT_EQ(sequences("\xc0\x80"), (seqs{{1, false}, {1, false}}));
  EXPECT_EQ(sequences("\xe0\x80\x80"), (seqs{{1, false}, {1, false}, {1, false}}));
  EXPECT_EQ(sequences("\xed\xa0\x80"), (seqs{{1, false}, {1, false}, {1, false}}));
  EXPECT_EQ(sequences("\xf4\x90\x80\x80"), (seqs{{1, false}, {1, false}, {1, false}, {1, false}}));
  EXPECT_EQ(sequences("\xf5"), (seqs{{1, false}}));
}

TEST(ReadUtf8, ABrokenOffSequenceIsItsMaximalSubpartAndTheNextByteIsReadAgain) {
  EXPECT_EQ(sequences("\xe2\x82"
                      "A"),
            (seqs{{2, false}, {1, true}}));
  EXPECT_EQ(sequences("\xf0\x9f\x98"), (seqs{{3, false}}));
  EXPECT_EQ(sequences("\xe2\xe2\x82\xac"), (seqs{{1, false}, {3, true}}));
  EXPECT_EQ(sequences("\x80"), (seqs{{1, false}}));
}

}  // namespace
