// The property tree: kinds, sharing, accessors and their errors.
#include <gtest/gtest.h>

#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

using zelcore::properties;

TEST(Properties, SetAndGetScalars) {
  properties p(false);
  p.set_int_value("a", 1);
  p.set_string_value("b", "x");
  EXPECT_EQ(p.get_int_value("a"), 1);
  EXPECT_EQ(p.get_string_value("b"), "x");
}
