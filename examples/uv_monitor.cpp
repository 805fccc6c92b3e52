// uv_monitor: follows the cluster's state inside a libuv loop, beside a timer of its own that
// prints the replica's size every second, for a number of seconds.
//
//   uv_monitor HOST PORT USER PASSWORD SECONDS
//
// Each line is "<seconds> jobs <n> tasks <n> changes <n>". Exit status: 0 after SECONDS, 1 when
// the cluster could not be reached, refused the login or dropped the link, 2 for bad arguments.
#include <uv.h>
#include <zelcapi/uv_attachment.h>
#include <zelcapi/zelcapi.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// Counts the changes; called inside the loop's callbacks, on its thread.
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

// What the timer's callback needs, reached through the handle's data pointer.
struct monitor {
  uv_loop_t* loop;
  zelcapi::state_connection* c;
  change_counter* counter;
  long seconds;
  long elapsed = 0;
  int status = 0;

  void fail(const std::string& why) {
    std::fprintf(stderr, "uv_monitor: %s\n", why.c_str());
    status = 1;
    uv_stop(loop);
  }
};

void every_second(uv_timer_t* timer) {
  monitor& m = *static_cast<monitor*>(timer->data);
  ++m.elapsed;
  const zelcapi::state& s = *m.c->get_state();
  std::printf("%ld jobs %zu tasks %zu changes %lu\n", m.elapsed,
              s.get_items(zelcapi::state_item_job).size(),
              s.get_items(zelcapi::state_item_task).size(), m.counter->changes);
  if (!m.c->is_connected()) return m.fail("lost the link to the cluster: " + m.counter->lost);
  if (m.elapsed >= m.seconds) uv_stop(m.loop);
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
  uv_loop_t* loop = uv_default_loop();
  zelcore::plugin_db plugins;
  change_counter counter;
  zelcapi::state_connection c(&counter, 0, &plugins);
  monitor m{loop, &c, &counter, seconds};
  {
    zelcapi::uv_attachment attached(loop, c);
    // The application's own timer, in the same loop as the connection.
    uv_timer_t tick;
    uv_timer_init(loop, &tick);
    tick.data = &m;
    c.connect_async(argv[1], argv[2], 10, [&](zelcapi::result_code connected) {
      if (connected != zelcapi::connection_ok) {
        return m.fail(std::string("cannot connect: ") + zelcapi::result_code_c_str(connected));
      }
      const auto request = zelcapi::connection::login_request(argv[3], argv[4], {}, "", "", true);
      c.login_async(request, 10, [&](const zelnet::zelp::packet& reply, std::exception_ptr error) {
        if (error) return m.fail("login as '" + std::string(argv[3]) + "' failed");
        if (reply.get_properties().is_present("error")) {
          return m.fail("login as '" + std::string(argv[3]) +
                        "' failed: " + reply.get_properties().get_string_value("error", ""));
        }
        c.request_new_state();
        uv_timer_start(&tick, every_second, 1000, 1000);
      });
    });
    uv_run(loop, UV_RUN_DEFAULT);
    uv_close(reinterpret_cast<uv_handle_t*>(&tick), nullptr);
  }
  // Lets the closed handles go.
  uv_run(loop, UV_RUN_DEFAULT);
  uv_loop_close(loop);
  return m.status;
}
