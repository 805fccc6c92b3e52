// Shared pieces of the work client's tests: a user's state connection with a replica, logged in
// to the master of a quiet write cluster, with a work_client over it; and the outcomes of a
// result written as text.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "zelcapi/state_connection.h"
#include "zelcapi/work_client.h"
#include "zelcore/plugin_db.h"
#include "zelsim/write_test_support.h"

namespace zeltest {

// A state connection with a replica (keeping history for `history_keep_time` seconds), logged
// in as `user` with the snapshot taken, and a work_client over it.
class work_session {
 public:
  work_session(zelsim::cluster& sim, const std::string& user, const std::string& password,
               std::uint32_t history_keep_time = 0)
      : link(&quiet, history_keep_time, &plugins), client(link, plugins) {
    EXPECT_EQ(link.connect("127.0.0.1", std::to_string(sim.port(1)), 5), zelcapi::connection_ok);
    EXPECT_FALSE(
        link.login_sync(user, password, "", "", 5, true).get_properties().is_present("error"));
    link.request_new_state_sync();
  }

  zelcapi::state_handler quiet;
  zelcore::plugin_db plugins;
  zelcapi::state_connection link;
  zelcapi::work_client client;
};

// A plain connection logged in as a user or an administrator, with a work_client over it.
class plain_work_session {
 public:
  plain_work_session(zelsim::cluster& sim, const std::string& user, const std::string& password,
                     bool admin = false)
      : logged_in(sim, user, password, admin), client(logged_in.c, plugins) {}

  write_client logged_in;
  zelcore::plugin_db plugins;
  zelcapi::work_client client;
};

// "outcome" or "outcome: text" (and " (owner)" when one is named), one per item.
inline std::vector<std::string> outcomes(const zelcapi::write_result& result) {
  std::vector<std::string> out;
  for (const zelcapi::item_result& item : result.items) {
    std::string line = zelcapi::write_outcome_c_str(item.outcome);
    if (!item.text.empty()) line += ": " + item.text;
    if (!item.owner.empty()) line += " (" + item.owner + ")";
    out.push_back(line);
  }
  return out;
}

}  // namespace zeltest
