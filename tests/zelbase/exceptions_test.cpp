// The exception family: each raiser throws its kind with file, line and message.
#include <gtest/gtest.h>

#include "zelbase/exceptions.h"

using namespace zelbase;

TEST(Exceptions, ArgCarriesFileLineAndMessage) {
  try {
    es::arg::raise("code\\x\\src\\state", 12, "state does not have item type 7");
    FAIL() << "no error";
  } catch (const es::base& e) {
    EXPECT_NE(dynamic_cast<const es::arg*>(&e), nullptr);
    EXPECT_STREQ(e.what(), "state does not have item type 7");
    EXPECT_EQ(e.message(), "state does not have item type 7");
    EXPECT_EQ(e.file(), "code\\x\\src\\state");
    EXPECT_EQ(e.line(), 12u);
  }
}

TEST(Exceptions, UspecIsABaseAndAStdException) {
  try {
    es::uspec::raise("f", 1, "no connection");
  } catch (const std::exception& e) {
    EXPECT_NE(dynamic_cast<const es::uspec*>(&e), nullptr);
    EXPECT_STREQ(e.what(), "no connection");
  }
}

TEST(Exceptions, ApiCodeKeepsItsSigned64BitCode) {
  try {
    es::api_code::raise("f", 2, -3414000, "'x' isn't a valid workflow state id");
    FAIL() << "no error";
  } catch (const es::api_code& e) {
    EXPECT_EQ(e.code(), -3414000);
    EXPECT_STREQ(e.what(), "'x' isn't a valid workflow state id");
  }
  try {
    es::api_code::raise("f", 2, INT64_MIN, "min");
  } catch (const es::api_code& e) {
    EXPECT_EQ(e.code(), INT64_MIN);
  }
}
