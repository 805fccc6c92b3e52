// asio_monitor: follows the cluster's state inside a Boost.Asio io_context, beside a timer of
// its own that prints the replica's size every second, for a number of seconds.
//
//   asio_monitor HOST PORT USER PASSWORD SECONDS
//
// Each line is "<seconds> jobs <n> tasks <n> changes <n>". Exit status: 0 after SECONDS, 1 when
// the cluster could not be reached, refused the login or dropped the link, 2 for bad arguments.
#include <zelcapi/asio_attachment.h>
#include <zelcapi/zelcapi.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// Counts the changes; called inside the io_context's handlers, on its thread.
class change_counter final : public zelcapi::state_handler {
 public:
  bool state_item_set(zelcapi::state_item_type, const std::string&,
                      const zelcore::properties&) override {
    return count();
  }
  bool state_item_updated(zelcapi::state_item_type, const std::string&,
                          const zelcore::properties&) override {
    return count();
  }
  bool state_item_removed(zelcapi::state_item_type, const std::string&) override { return count(); }
  void disconnected(const std::string& reason, bool) override { lost = reason; }

  unsigned long changes = 0;
  std::string lost;

 private:
  bool count() {
    ++changes;
    return true;
  }
};

std::string message_of(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return e.what();
  }
}

bool read_seconds(const char* text, long& seconds) {
  char* end = nullptr;
  seconds = std::strtol(text, &end, 10);
  return end != text && *end == '\0' && seconds >= 0 && seconds <= 86400;
}

}  // namespace

int main(int argc, char** argv) {
  long seconds = 0;
  if (argc != 6 || !read_seconds(argv[5], seconds)) {
    std::fprintf(stderr, "usage: %s HOST PORT USER PASSWORD SECONDS (0 to 86400)\n", argv[0]);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  zelcore::set_report_threshold(zelbase::severity_error);
  boost::asio::io_context io;
  zelcore::plugin_db plugins;
  change_counter counter;
  zelcapi::state_connection c(&counter, 0, &plugins);
  zelcapi::asio_attachment attached(io, c);
  int status = 0;
  const auto fail = [&](const std::string& why) {
    std::fprintf(stderr, "asio_monitor: %s\n", why.c_str());
    status = 1;
    io.stop();
  };

  // The application's own timer, in the same loop as the connection.
  boost::asio::steady_timer tick(io);
  long elapsed = 0;
  std::function<void()> every_second = [&] {
    tick.expires_after(std::chrono::seconds(1));
    tick.async_wait([&](const boost::system::error_code& ec) {
      if (ec) return;
      ++elapsed;
      const zelcapi::state& s = *c.get_state();
      std::printf("%ld jobs %zu tasks %zu changes %lu\n", elapsed,
                  s.get_items(zelcapi::state_item_job).size(),
                  s.get_items(zelcapi::state_item_task).size(), counter.changes);
      if (!c.is_connected()) return fail("lost the link to the cluster: " + counter.lost);
      if (elapsed >= seconds) return io.stop();
      every_second();
    });
  };

  c.connect_async(argv[1], argv[2], 10, [&](zelcapi::result_code connected) {
    if (connected != zelcapi::connection_ok) {
      return fail(std::string("cannot connect: ") + zelcapi::result_code_c_str(connected));
    }
    const auto request = zelcapi::connection::login_request(argv[3], argv[4], {}, "", "", true);
    c.login_async(request, 10, [&](const zelnet::zelp::packet& reply, std::exception_ptr error) {
      const std::string refused =
          error ? message_of(error) : reply.get_properties().get_string_value("error", "");
      if (error || reply.get_properties().is_present("error")) {
        return fail("login as '" + std::string(argv[3]) + "' failed: " + refused);
      }
      c.request_new_state();
      every_second();
    });
  });
  io.run();
  return status;
}
