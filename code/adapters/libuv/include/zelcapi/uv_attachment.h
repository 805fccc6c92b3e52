// Runs a connection (or a state connection, or any zelnet::ioctrl) inside a libuv loop: its
// files are watched by uv_poll_t handles, its deadline by a uv_timer_t, and its step() runs in
// their callbacks, on the thread that runs the loop. The loop's thread is never given to the
// library: a step never blocks. Link libuv (pkg-config "libuv") beside zelcapi.
//
//   uv_loop_t* loop = uv_default_loop();
//   zelcapi::state_connection sc(&handler, 0, &plugins);
//   zelcapi::uv_attachment attached(loop, sc);
//   sc.connect_async(host, port, 15, [&](zelcapi::result_code r) { ... });
//   uv_run(loop, UV_RUN_DEFAULT);
//   attached.rethrow_if_failed();
#pragma once

#include <uv.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelnet/ioctrl.h"

namespace zelcapi {

class uv_attachment {
 public:
  // Attaches `controller` to `loop` until destruction; both must outlive the attachment. Takes
  // over the controller's watch callback: raises es::arg when the controller is attached to a
  // loop already. A file that libuv cannot watch raises es::uspec "cannot watch descriptor ..."
  // from here, or later from the call that added the file (connect_async fails with it).
  uv_attachment(uv_loop_t* loop, zelnet::ioctrl& controller)
      : loop_(loop), controller_(controller) {
    controller_.set_watch_callback([this] { refresh(); });
    timer_ = new timer_handle;
    timer_->owner = this;
    uv_timer_init(loop_, &timer_->timer);
    try {
      refresh();
    } catch (...) {
      detach();
      throw;
    }
  }

  // Stops watching. The handles close inside the loop's next iteration, which frees them.
  ~uv_attachment() { detach(); }

  uv_attachment(const uv_attachment&) = delete;
  uv_attachment& operator=(const uv_attachment&) = delete;

  // What a step raises (an exception from a handler of the application) cannot cross libuv's C
  // frames: it goes to `handler`. Without one it is kept, the loop stops (uv_stop), and
  // rethrow_if_failed() raises it after uv_run returns; running the loop again goes on after
  // it, as the next step is already scheduled.
  void set_error_handler(std::function<void(std::exception_ptr)> handler) {
    error_handler_ = std::move(handler);
  }
  void rethrow_if_failed() {
    if (!failure_) return;
    std::exception_ptr raised = std::exchange(failure_, nullptr);
    std::rethrow_exception(raised);
  }

 private:
  static constexpr const char* source_file =
      "code\\adapters\\libuv\\include\\zelcapi\\uv_attachment";

  // The handle comes first, so that a pointer to it is a pointer to its struct.
  struct poll_handle {
    uv_poll_t poll;
    uv_attachment* owner;
    zelnet::ioctrl::watched_file file;
  };
  struct timer_handle {
    uv_timer_t timer;
    uv_attachment* owner;
  };

  void detach() {
    controller_.set_watch_callback({});
    for (auto& [descriptor, w] : watches_) close(w);
    timer_->owner = nullptr;
    uv_timer_stop(&timer_->timer);
    uv_close(reinterpret_cast<uv_handle_t*>(&timer_->timer),
             [](uv_handle_t* h) { delete reinterpret_cast<timer_handle*>(h); });
  }

  static void close(poll_handle* w) {
    w->owner = nullptr;
    uv_poll_stop(&w->poll);
    uv_close(reinterpret_cast<uv_handle_t*>(&w->poll),
             [](uv_handle_t* h) { delete reinterpret_cast<poll_handle*>(h); });
  }

  // Brings the poll handles in line with the controller's files and re-arms the timer; the
  // watch callback calls it for every change of the files, so a step needs only arm_timer().
  void refresh() {
    const std::vector<zelnet::ioctrl::watched_file> files = controller_.watched_files();
    zelnet::forget_unwatched(watches_, files, close);
    for (const zelnet::ioctrl::watched_file& f : files) {
      auto it = watches_.find(f.descriptor);
      if (it == watches_.end()) {
        auto* w = new poll_handle{};
        w->owner = this;
        w->file = f;
        w->file.events = 0;
        if (const int failed = uv_poll_init_socket(loop_, &w->poll, f.descriptor)) {
          delete w;
          zelbase::es::uspec::raise(
              source_file, __LINE__,
              zelbase::string_with_format("cannot watch descriptor %d in the libuv loop: %s",
                                          f.descriptor, uv_strerror(failed)));
        }
        it = watches_.emplace(f.descriptor, w).first;
      }
      poll_handle* w = it->second;
      if (w->file.events == f.events) continue;
      w->file.events = f.events;
      int events = 0;
      if ((f.events & zelnet::ioctrl::watch_readable) != 0) events |= UV_READABLE;
      if ((f.events & zelnet::ioctrl::watch_writable) != 0) events |= UV_WRITABLE;
      uv_poll_start(&w->poll, events, [](uv_poll_t* h, int status, int) {
        auto* self = reinterpret_cast<poll_handle*>(h);
        if (self->owner == nullptr) return;
        if (status < 0) {
          self->owner->failed(self);
        } else {
          self->owner->serve([](zelnet::ioctrl& c) { c.step(); });
        }
      });
    }
    arm_timer();
  }

  void arm_timer() {
    const auto deadline = controller_.next_deadline();
    // The timer started for the same deadline still runs.
    if (deadline == timer_deadline_) return;
    timer_deadline_ = deadline;
    if (!deadline) {
      uv_timer_stop(&timer_->timer);
      return;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - zelnet::ioctrl::clock::now());
    uv_timer_start(
        &timer_->timer,
        [](uv_timer_t* h) {
          auto* self = reinterpret_cast<timer_handle*>(h);
          if (self->owner == nullptr) return;
          self->owner->timer_deadline_.reset();
          self->owner->serve([](zelnet::ioctrl& c) { c.step(); });
        },
        static_cast<std::uint64_t>(std::max<std::int64_t>(left.count(), 0)), 0);
  }

  // libuv found an error on the file (a reset peer) and stopped its handle: the file's handler
  // hears of it at once, and a file still watched afterwards is watched again, so that the
  // error is reported until the library drops the file.
  void failed(poll_handle* w) {
    w->file.events = 0;
    const int descriptor = w->file.descriptor;
    serve([descriptor](zelnet::ioctrl& c) { c.step_error(descriptor); }, true);
  }

  // Runs `step` on the controller, then re-arms the timer (and with `rewatch` first brings the
  // handles in line again, whatever the step raised). Nothing may cross libuv's C frames: what
  // they raise goes to the error handler, or is kept and stops the loop.
  template <class Step>
  void serve(Step step, bool rewatch = false) {
    std::exception_ptr raised;
    try {
      step(controller_);
    } catch (...) {
      raised = std::current_exception();
    }
    if (rewatch) {
      try {
        refresh();
      } catch (...) {
        if (!raised) raised = std::current_exception();
      }
    }
    arm_timer();
    if (!raised) return;
    if (error_handler_) {
      error_handler_(raised);
    } else {
      failure_ = raised;
      uv_stop(loop_);
    }
  }

  uv_loop_t* loop_;
  zelnet::ioctrl& controller_;
  timer_handle* timer_ = nullptr;
  std::optional<zelnet::ioctrl::clock::time_point> timer_deadline_;  // what timer_ runs for
  std::map<int, poll_handle*> watches_;
  std::function<void(std::exception_ptr)> error_handler_;
  std::exception_ptr failure_;
};

}  // namespace zelcapi
