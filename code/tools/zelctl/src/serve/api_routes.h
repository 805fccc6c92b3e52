// The routes of zelctl serve: the JSON API under /api/ (docs/http-api.md) and the pages, all
// answered from the replica on the io_context's thread. Read-only.
#pragma once

#include "serve/event_feed.h"
#include "serve/http_server.h"
#include "serve/overview.h"
#include "zelcapi/state.h"

namespace zelctl::serve {

class api_routes {
 public:
  api_routes(const zelcapi::state& replica, const overview& view)
      : replica_(replica), view_(view) {}

  // The answer to a GET; an event-stream response for /api/events.
  response operator()(const request& in) const;

 private:
  response state(const request& in, const std::string& rest) const;
  response table(const request& in, const std::string& kind) const;
  response history(const request& in, const std::string& kind) const;

  const zelcapi::state& replica_;
  const overview& view_;
};

}  // namespace zelctl::serve
