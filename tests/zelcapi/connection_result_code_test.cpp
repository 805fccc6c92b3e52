// Result code texts and the default handler operations.
#include <gtest/gtest.h>

#include <type_traits>

#include "support/capture_sink.h"
#include "zelcapi/connection.h"

namespace {

using zelcapi::result_code;

TEST(ResultCode, EveryCodeHasItsText) {
  const char* texts[] = {"Connection OK",
                         "Wrong protocol version",
                         "Connection Failed",
                         "Connection Timeout",
                         "Login OK",
                         "No connection for Login",
                         "Login Reconnection failed",
                         "Login Timeout",
                         "Disconnected on Login",
                         "No such user",
                         "Access Denied",
                         "Unknown Cluster Master",
                         "Reconecting to Master",
                         "Cluster Master not found",
                         "Manual Disconnection",
                         "Connection Closed"};
  for (int code = 1; code <= 16; ++code) {
    EXPECT_STREQ(zelcapi::result_code_c_str(static_cast<result_code>(code)), texts[code - 1]);
  }
}

TEST(ResultCode, ReconnectingToMasterKeepsItsSpelling) {
  EXPECT_STREQ(zelcapi::result_code_c_str(zelcapi::reconnecting_to_master),
               "Reconecting to Master");
}

TEST(ResultCode, ValuesOutsideTheTableAreUnspecified) {
  EXPECT_STREQ(zelcapi::result_code_c_str(static_cast<result_code>(0)), "unspecified error");
  EXPECT_STREQ(zelcapi::result_code_c_str(static_cast<result_code>(17)), "unspecified error");
  EXPECT_STREQ(zelcapi::result_code_c_str(static_cast<result_code>(-5)), "unspecified error");
}

TEST(ResultCode, NumbersAreTheWireContract) {
  static_assert(sizeof(zelcapi::result_code) == 4);
  static_assert(std::is_signed_v<std::underlying_type_t<zelcapi::result_code>>);
  EXPECT_EQ(zelcapi::login_reconnection_failed, 7);
  EXPECT_EQ(zelcapi::unknown_cluster_master, 12);
  EXPECT_EQ(zelcapi::reconnecting_to_master, 13);
  EXPECT_EQ(zelcapi::cluster_master_not_found, 14);
}

TEST(Handler, DefaultDisconnectedPrintsReasonAndNo) {
  zeltest::capture_sink sink;
  zelcapi::handler h;
  h.disconnected("x", false);
  h.disconnected("y", true);
  const auto prints = sink.prints();
  ASSERT_EQ(prints.size(), 2u);
  EXPECT_EQ(prints[0].category, "zelcapi::handler:error");
  EXPECT_EQ(prints[0].text, "disconnected. reason: 'x' reconnecting: no");
  EXPECT_EQ(prints[1].text, "disconnected. reason: 'y' reconnecting: yes");
}

TEST(Handler, DefaultStatusAndHandleReturnTrue) {
  zelcapi::handler h;
  zelnet::zelp::packet in(4, "a"), out;
  EXPECT_TRUE(h.status(zelcapi::login_ok, "m", true));
  EXPECT_TRUE(h.handle(in, out));
  EXPECT_EQ(out.get_name(), "");
}

}  // namespace
