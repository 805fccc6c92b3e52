// Runs a connection (or a state connection, or any zelnet::ioctrl) inside a Boost.Asio
// io_context: its files are watched by the io_context's reactor, its deadline by a steady_timer,
// and its step() runs in the completion handlers, on the thread that runs the io_context. The
// io_context's thread is never given to the library: a step never blocks.
//
//   boost::asio::io_context io;
//   zelcapi::state_connection sc(&handler, 0, &plugins);
//   zelcapi::asio_attachment attached(io, sc);
//   sc.connect_async(host, port, 15, [&](zelcapi::result_code r) { ... });
//   io.run();
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/system_error.hpp>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelnet/ioctrl.h"

namespace zelcapi {

class asio_attachment {
 public:
  // Attaches `controller` to `io` until destruction; both must outlive the attachment. Takes
  // over the controller's watch callback: raises es::arg when the controller is attached to a
  // loop already. A file that the io_context cannot watch raises es::uspec "cannot watch
  // descriptor ..." from here, or later from the call that added the file (connect_async fails
  // with it).
  asio_attachment(boost::asio::io_context& io, zelnet::ioctrl& controller)
      : io_(io), controller_(controller), timer_(io), alive_(std::make_shared<bool>(true)) {
    controller_.set_watch_callback([this] { refresh(); });
    try {
      refresh();
    } catch (...) {
      detach();
      throw;
    }
  }

  // Stops watching; pending completion handlers find the attachment gone and do nothing.
  ~asio_attachment() { detach(); }

  asio_attachment(const asio_attachment&) = delete;
  asio_attachment& operator=(const asio_attachment&) = delete;

  // What a step raises (an exception from a handler of the application) goes to `handler`;
  // without one it leaves io_context::run(), which may be called again: the input after it is
  // served by the next step, which the attachment has already scheduled.
  void set_error_handler(std::function<void(std::exception_ptr)> handler) {
    error_handler_ = std::move(handler);
  }

 private:
  static constexpr const char* source_file =
      "code\\adapters\\asio\\include\\zelcapi\\asio_attachment";

  void detach() {
    controller_.set_watch_callback({});
    for (auto& [descriptor, w] : watches_) w->release();
  }

  struct watch {
    watch(boost::asio::io_context& io, const zelnet::ioctrl::watched_file& f)
        : descriptor(io, f.descriptor), file(f) {}
    // The descriptor belongs to the library, which closes it: the stream only watches it.
    void release() {
      boost::system::error_code ignored;
      descriptor.cancel(ignored);
      descriptor.release();
    }
    boost::asio::posix::stream_descriptor descriptor;
    zelnet::ioctrl::watched_file file;
    bool read_armed = false;
    bool write_armed = false;
  };

  // Brings the watches in line with the controller's files; the watch callback calls it for
  // every change of them, so a step needs only rearm().
  void refresh() {
    const std::vector<zelnet::ioctrl::watched_file> files = controller_.watched_files();
    zelnet::forget_unwatched(watches_, files,
                             [](const std::shared_ptr<watch>& w) { w->release(); });
    for (const zelnet::ioctrl::watched_file& f : files) {
      auto it = watches_.find(f.descriptor);
      if (it == watches_.end()) it = watches_.emplace(f.descriptor, watched(f)).first;
      it->second->file.events = f.events;
    }
    rearm();
  }

  std::shared_ptr<watch> watched(const zelnet::ioctrl::watched_file& f) {
    try {
      return std::make_shared<watch>(io_, f);
    } catch (const boost::system::system_error& e) {
      zelbase::es::uspec::raise(
          source_file, __LINE__,
          zelbase::string_with_format("cannot watch descriptor %d in the io_context: %s",
                                      f.descriptor, e.code().message().c_str()));
    }
  }

  // Arms again the waits that have ended, and the timer when the deadline moved.
  void rearm() {
    for (auto& [descriptor, w] : watches_) arm(w);
    arm_timer();
  }

  void arm(const std::shared_ptr<watch>& w) {
    using wait_type = boost::asio::posix::stream_descriptor::wait_type;
    if ((w->file.events & zelnet::ioctrl::watch_readable) != 0 && !w->read_armed) {
      w->read_armed = true;
      w->descriptor.async_wait(wait_type::wait_read, ready(w, &watch::read_armed));
    }
    if ((w->file.events & zelnet::ioctrl::watch_writable) != 0 && !w->write_armed) {
      w->write_armed = true;
      w->descriptor.async_wait(wait_type::wait_write, ready(w, &watch::write_armed));
    }
  }

  // The completion handler of a wait for one direction of a file.
  std::function<void(const boost::system::error_code&)> ready(const std::shared_ptr<watch>& w,
                                                              bool watch::*armed) {
    return [this, weak = std::weak_ptr<watch>(w), armed](const boost::system::error_code& ec) {
      const std::shared_ptr<watch> self = weak.lock();
      if (!self) return;
      (*self).*armed = false;
      if (ec == boost::asio::error::operation_aborted) return;
      if (ec) {
        // The reactor found an error on the file: its handler hears of it at once.
        const int descriptor = self->file.descriptor;
        serve([descriptor](zelnet::ioctrl& c) { c.step_error(descriptor); });
      } else {
        serve([](zelnet::ioctrl& c) { c.step(); });
      }
    };
  }

  void arm_timer() {
    const auto deadline = controller_.next_deadline();
    // The wait armed for the same deadline still stands.
    if (deadline == timer_deadline_) return;
    timer_deadline_ = deadline;
    if (!deadline) {
      timer_.cancel();
      return;
    }
    timer_.expires_at(*deadline);
    timer_.async_wait(
        [this, alive = std::weak_ptr<bool>(alive_)](const boost::system::error_code& ec) {
          if (alive.expired() || ec == boost::asio::error::operation_aborted) return;
          timer_deadline_.reset();
          serve([](zelnet::ioctrl& c) { c.step(); });
        });
  }

  template <class Step>
  void serve(Step step) {
    std::exception_ptr raised;
    try {
      step(controller_);
    } catch (...) {
      raised = std::current_exception();
    }
    rearm();
    if (!raised) return;
    if (!error_handler_) std::rethrow_exception(raised);
    error_handler_(raised);
  }

  boost::asio::io_context& io_;
  zelnet::ioctrl& controller_;
  boost::asio::steady_timer timer_;
  std::optional<zelnet::ioctrl::clock::time_point> timer_deadline_;  // what timer_ waits for
  std::map<int, std::shared_ptr<watch>> watches_;
  std::shared_ptr<bool> alive_;
  std::function<void(std::exception_ptr)> error_handler_;
};

}  // namespace zelcapi
