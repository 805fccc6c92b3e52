// The ticks of zelctl serve's notifications.
#include "serve/notify_timer.h"

#include <utility>

namespace zelctl::serve {

notify_timer::notify_timer(boost::asio::io_context& io, service_notify& notify,
                           std::function<std::string()> status)
    : timer_(io), notify_(notify), status_(std::move(status)) {}

void notify_timer::start() {
  if (notify_.active()) arm();
}

void notify_timer::arm() {
  timer_.expires_after(notify_.tick());
  timer_.async_wait([this](const boost::system::error_code& ec) {
    if (ec) return;
    notify_.keep_alive();
    if (notify_.status_due()) notify_.status(status_());
    arm();
  });
}

}  // namespace zelctl::serve
