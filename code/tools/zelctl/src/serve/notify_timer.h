// zelctl serve as a service: the watchdog and the status line sent from the io_context's own
// thread, so that a stuck loop stops the watchdog.
#pragma once

#include <functional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "service_notify.h"

namespace zelctl::serve {

class notify_timer {
 public:
  // `status` gives the status line; called on the io_context's thread.
  notify_timer(boost::asio::io_context& io, service_notify& notify,
               std::function<std::string()> status);
  // Begins the ticks (none without a service manager). Call on the io_context's thread or
  // before it runs.
  void start();

 private:
  void arm();

  boost::asio::steady_timer timer_;
  service_notify& notify_;
  std::function<std::string()> status_;
};

}  // namespace zelctl::serve
