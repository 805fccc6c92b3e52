// Test support for zelctl serve: the program serving a simulated cluster on a free port, and
// what its tests compare states with.
#pragma once

#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "json_output.h"
#include "stream_state.h"
#include "support/http_peer.h"
#include "zelctl_test_support.h"

namespace zelctl_test {

inline nlohmann::json body_json(const zeltest::http_answer& a) {
  return nlohmann::json::parse(a.body);
}

// The first differences between two states, as JSON patch operations (the states themselves
// are too long to print).
inline std::string difference(const nlohmann::json& from, const nlohmann::json& to) {
  const nlohmann::json patch = nlohmann::json::diff(from, to);
  std::string text;
  for (std::size_t i = 0; i < patch.size() && i < 5; ++i)
    text += patch[i].dump().substr(0, 300) + "\n";
  return text;
}

// zelctl serve as a child, pointed at node 2 of `sim` (so that its login follows the redirect
// to the master), on a free port of 127.0.0.1 unless the flags say otherwise.
class server {
 public:
  server(zelsim::cluster& sim, const temp_dir& dir, const std::vector<std::string>& flags = {},
         const std::string& listen = "127.0.0.1:0")
      : server(at(sim, dir.file("pw"), 2) + std::vector<std::string>{"serve", "--listen", listen} +
               flags) {}
  // zelctl with `args` (a serve command of its own, on a port of 127.0.0.1).
  explicit server(const std::vector<std::string>& args) : process_(args) {
    if (!process_.wait_for_output("serving", std::chrono::seconds(15))) return;
    port_ = zeltest::loopback_port_in(process_.out());
  }
  std::uint16_t port() const { return port_; }
  zeltest::http_answer get(const std::string& target, const std::string& headers = "") const {
    return zeltest::http_get(port_, target, headers);
  }
  nlohmann::json json(const std::string& target) const {
    const zeltest::http_answer a = get(target);
    EXPECT_EQ(a.status, 200) << target << ": " << a.body;
    return a.status == 200 ? body_json(a) : nlohmann::json();
  }
  process& child() { return process_; }

 private:
  process process_;
  std::uint16_t port_ = 0;
};

// Opens the event stream with the whole state and applies its first snapshot to `built`; false
// when none came within `limit`.
inline bool open_full_stream(zeltest::http_peer& stream, stream_state& built,
                             std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  if (stream.open_stream("/api/events").status != 200) return false;
  const auto first = stream.next_event(limit);
  return first.name == "snapshot" && built.apply(first.name, nlohmann::json::parse(first.data));
}

// Reads the stream's events into `built` until its state is `wanted` (true), or a catch-up
// snapshot replaces its batches, or `limit` passes (false). The link's cluster events are read
// past.
inline bool stream_reaches(zeltest::http_peer& stream, stream_state& built,
                           const nlohmann::json& wanted,
                           std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (built.state() != wanted) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= until) return false;
    const auto e =
        stream.next_event(std::chrono::duration_cast<std::chrono::milliseconds>(until - now));
    if (e.name.empty()) return false;
    if (e.name == "snapshot") {
      ADD_FAILURE() << "a catch-up snapshot came";
      return false;
    }
    if (!built.apply(e.name, nlohmann::json::parse(e.data))) {
      ADD_FAILURE() << "a batch was skipped";
      return false;
    }
  }
  return true;
}

// The cluster of cluster_test, changed by each test in steps of its own.
class serve_test : public cluster_test {
 protected:
  // Runs `changes` more changes of the workload and waits for their end.
  void change(std::uint64_t changes) {
    sim_.run_workload(changes);
    ASSERT_TRUE(sim_.wait_workload_paused(std::chrono::seconds(20)));
  }
  // Waits until the served state equals the master's (the replica has applied everything).
  bool served_equals_master(const server& s) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < until) {
      if (s.json("/api/state") == master()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
};

}  // namespace zelctl_test
