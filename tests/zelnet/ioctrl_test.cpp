// The I/O controller's surface for event loops: one watch callback at a time, files closed even
// when that callback raises, and an error that a loop's poll found served on its file alone.
#include "zelnet/ioctrl.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "zelbase/exceptions.h"

namespace {

// Records what the controller asks of it; reading a file whose peer closed drops it.
class recording_file_handler : public zelnet::ioctrl::hdlr {
 public:
  bool readable(zelbase::file& f, unsigned, zelnet::ioctrl&) override {
    calls.push_back("readable");
    char byte;
    return ::recv(f.descriptor(), &byte, 1, MSG_DONTWAIT) != 0;
  }
  void dismiss(zelbase::file&, unsigned, bool closing, zelnet::ioctrl&) override {
    calls.push_back(closing ? "dismiss closing" : "dismiss");
  }
  bool has_pending_input() const override { return pending; }
  bool resume(zelbase::file&, unsigned, zelnet::ioctrl&) override {
    calls.push_back("resume");
    pending = false;
    return true;
  }

  std::vector<std::string> calls;
  bool pending = false;
};

// Two connected sockets: the controller watches `mine`, the test plays `theirs`.
struct socket_pair {
  socket_pair() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    mine = zelbase::file(fds[0]);
    theirs = fds[1];
  }
  ~socket_pair() {
    if (theirs >= 0) ::close(theirs);
  }
  void close_theirs() {
    ::close(theirs);
    theirs = -1;
  }
  zelbase::file mine;
  int theirs = -1;
};

// The `mine` end of a socket pair, watched by the controller with a recording handler.
struct watched_socket {
  explicit watched_socket(zelnet::ioctrl& c) : descriptor(pair.mine.descriptor()) {
    EXPECT_TRUE(c.watch(pair.mine, handler, 0, false, true));
  }
  socket_pair pair;
  recording_file_handler handler;
  const int descriptor;
};

bool is_open_descriptor(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

using calls = std::vector<std::string>;

TEST(Ioctrl, ASecondWatchCallbackIsRefusedUntilTheFirstIsRemoved) {
  zelnet::ioctrl c(4096);
  int first = 0;
  c.set_watch_callback([&first] { ++first; });
  try {
    c.set_watch_callback([] {});
    FAIL() << "a second event loop was attached";
  } catch (const zelbase::es::arg& e) {
    EXPECT_EQ(e.message(),
              "the controller is already attached to an event loop: detach that one first");
  }
  watched_socket s(c);
  EXPECT_EQ(first, 1);  // the first callback is still the one told
  c.set_watch_callback({});
  EXPECT_NO_THROW(c.set_watch_callback([] {}));
  c.clear();
}

TEST(Ioctrl, AWatchCallbackThatRaisesWhileAFileIsDroppedStillClosesIt) {
  zelnet::ioctrl c(4096);
  watched_socket s(c);
  c.set_watch_callback([&c] {
    if (c.watched_files().empty()) throw std::runtime_error("the loop failed");
  });
  s.pair.close_theirs();
  EXPECT_THROW(c.wait(5000), std::runtime_error);
  EXPECT_EQ(s.handler.calls, (calls{"readable", "dismiss closing"}));
  EXPECT_FALSE(is_open_descriptor(s.descriptor));
  EXPECT_TRUE(c.watched_files().empty());
  c.set_watch_callback({});
}

TEST(Ioctrl, ClearClosesEveryFileWhenTheWatchCallbackRaisesAndThenPassesTheError) {
  zelnet::ioctrl c(4096);
  watched_socket a(c), b(c);
  c.set_watch_callback([] { throw std::runtime_error("the loop failed"); });
  EXPECT_THROW(c.clear(), std::runtime_error);
  for (const watched_socket* s : {&a, &b}) {
    EXPECT_FALSE(is_open_descriptor(s->descriptor));
    EXPECT_EQ(s->handler.calls, calls{"dismiss closing"});
  }
  c.set_watch_callback({});
}

TEST(Ioctrl, AnErrorReportedByTheLoopIsServedOnItsFileAtOnce) {
  zelnet::ioctrl c(4096);
  watched_socket s(c), quiet(c);
  // Nothing to read yet: the handler is asked all the same, and the other file is not.
  EXPECT_EQ(c.step_error(s.descriptor), 1);
  EXPECT_EQ(s.handler.calls, calls{"readable"});
  // The peer has gone: the read finds it and the file is dropped.
  s.pair.close_theirs();
  c.step_error(s.descriptor);
  EXPECT_EQ(s.handler.calls, (calls{"readable", "readable", "dismiss closing"}));
  EXPECT_FALSE(is_open_descriptor(s.descriptor));
  // A descriptor that is not watched changes nothing.
  EXPECT_EQ(c.step_error(s.descriptor), 0);
  EXPECT_TRUE(quiet.handler.calls.empty());
  c.clear();
}

TEST(Ioctrl, InputLeftInABufferGoesBeforeAnErrorReportedByTheLoop) {
  zelnet::ioctrl c(4096);
  watched_socket s(c);
  s.handler.pending = true;
  s.pair.close_theirs();
  c.step_error(s.descriptor);
  EXPECT_EQ(s.handler.calls, calls{"resume"});
  c.step_error(s.descriptor);
  EXPECT_EQ(s.handler.calls, (calls{"resume", "readable", "dismiss closing"}));
}

}  // namespace
