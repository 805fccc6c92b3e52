// Test support: what every event-loop adapter must do, checked the same way on each of them:
// one attachment per connection at a time, and a file that the loop cannot watch reported as
// the library's error rather than skipped.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "zelbase/exceptions.h"
#include "zelcapi/connection.h"
#include "zelcapi/connection_test_support.h"
#include "zelnet/ioctrl.h"

namespace zeltest {

// Builds an attachment of `c` into `slot` (slot.emplace with the test's loop).
template <class Attachment>
using attach_into = std::function<void(std::optional<Attachment>& slot, zelnet::ioctrl& c)>;
// Runs the test's loop, served by `a`, until `done()` or `limit`; false on the limit.
template <class Attachment>
using run_loop_until = std::function<bool(Attachment& a, const std::function<bool()>& done,
                                          std::chrono::milliseconds limit)>;

// A second attachment is refused with es::arg, the first one still serves the connection, and
// another one may attach once the first is gone.
template <class Attachment>
void expect_one_attachment_at_a_time(const attach_into<Attachment>& attach,
                                     const run_loop_until<Attachment>& run_until) {
  zelcapi::connection c;
  std::optional<Attachment> first, second;
  attach(first, c);
  try {
    attach(second, c);
    ADD_FAILURE() << "the second attachment was taken";
  } catch (const zelbase::es::arg& e) {
    EXPECT_EQ(e.message(),
              "the controller is already attached to an event loop: detach that one first");
  }
  test_cluster sim(1, 1);
  std::optional<zelcapi::result_code> result;
  c.connect_async("127.0.0.1", sim.port_text(1), 5, [&](zelcapi::result_code r) { result = r; });
  ASSERT_TRUE(run_until(
      *first, [&] { return result.has_value(); }, std::chrono::seconds(10)));
  EXPECT_EQ(result, zelcapi::connection_ok);
  first.reset();
  EXPECT_NO_THROW(attach(second, c));
}

// A handler of a file that the test only needs watched.
class idle_file_handler : public zelnet::ioctrl::hdlr {
 public:
  bool readable(zelbase::file&, unsigned, zelnet::ioctrl&) override { return true; }
};

// Watching `f` with `h` on `controller` (attached to a loop that cannot watch it) raises
// es::uspec with `expected`. The controller keeps the file until the caller clears it.
inline void expect_watch_refused(zelnet::ioctrl& controller, zelbase::file f, idle_file_handler& h,
                                 const std::string& expected) {
  try {
    controller.watch(f, h, 0, false, false);
    ADD_FAILURE() << "the file that the loop refused was skipped";
  } catch (const zelbase::es::uspec& e) {
    EXPECT_EQ(e.message(), expected);
  }
}

}  // namespace zeltest
