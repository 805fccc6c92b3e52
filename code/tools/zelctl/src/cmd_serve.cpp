// zelctl serve: keeps a replica of the cluster's state and serves it over HTTP (pages, a JSON
// API and a stream of its changes) on one thread: an io_context runs both the state connection
// (through the Asio adapter) and the sockets of the HTTP server. With --from the replica follows
// the saves of a mirror's PostgreSQL database instead of the cluster.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include "commands.h"
#include "description_check.h"
#include "metrics.h"
#include "mirror_location.h"
#include "replica_metrics.h"
#include "serve/api_routes.h"
#include "serve/cluster_link.h"
#include "serve/event_feed.h"
#include "serve/http_server.h"
#include "serve/mirror_link.h"
#include "serve/notify_timer.h"
#include "serve/overview.h"
#include "zelcapi/asio_attachment.h"
#include "zelcapi/state_connection.h"

namespace zelctl {
namespace {

struct serve_flags {
  std::string listen = "127.0.0.1:8080";
  std::string from;
  std::string token_file;
  std::uint32_t history_keep = 600;
  double duration = 0;
  unsigned batch_ms = 250;
  unsigned header_ms = 5000;
  unsigned idle_ms = 30000;
  unsigned write_ms = 10000;
  std::size_t max_connections = 256;
  std::size_t max_queue_kib = 8192;
};

std::string read_token(const std::string& path) {
  if (path.empty()) return "";
  std::ifstream in(path);
  if (!in) {
    throw failure(exit_usage, "cannot read --token-file '" + path + "': " + std::strerror(errno));
  }
  std::string token;
  if (!std::getline(in, token)) {
    if (in.eof()) throw failure(exit_usage, "--token-file '" + path + "' is empty");
    throw failure(exit_usage, "cannot read --token-file '" + path + "'");
  }
  while (!token.empty() && (token.back() == '\r' || token.back() == ' ')) token.pop_back();
  if (token.empty()) throw failure(exit_usage, "--token-file '" + path + "' holds no token");
  return token;
}

// GET /metrics: the replica's figures, the event stream's clients and the answers given, made
// now from counters and the tallies of the jobs and the nodes by state.
serve::response metrics_answer(const zelcapi::state& replica, replica_counters& counts,
                               const serve::replica_source& source, const serve::event_feed& feed,
                               const serve::answer_counts& answered) {
  metrics_text out;
  const serve::source_status& link = source.status();
  write_replica_metrics(out, replica, counts, {link.connected, link.reconnects});
  if (link.source == "mirror") {
    out.family("zelcapi_mirror_save", "gauge",
               "Number of the mirror's save that the replica holds (serve --from).");
    out.sample("zelcapi_mirror_save", link.save);
  }
  out.family("zelcapi_event_stream_clients", "gauge", "Clients of the event stream.");
  out.sample("zelcapi_event_stream_clients", std::uint64_t{feed.clients()});
  serve::write_answer_metrics(out, answered);
  serve::response r;
  r.content_type = metrics_content_type;
  r.body = out.take();
  return r;
}

// What serves a replica, whatever its source: where it listens, the change stream's feed and the
// counts, which the source's changes pass through, and the answers given. The flags are checked
// before the source is reached.
struct serving {
  explicit serving(const serve_flags& f)
      : token(read_token(f.token_file)), feed(io, feed_options_of(f)), counted(feed, counts) {
    serve::split_listen(f.listen, "--listen", host, port);
  }
  static serve::feed_options feed_options_of(const serve_flags& f) {
    serve::feed_options o;
    o.batch_interval = std::chrono::milliseconds(f.batch_ms);
    o.max_queue_bytes = f.max_queue_kib * 1024;
    return o;
  }

  std::string token;
  std::string host;
  std::string port;
  // Before the io_context: its connections count into it until they end.
  serve::answer_counts answered;
  boost::asio::io_context io;
  serve::event_feed feed;
  zelcore::plugin_db plugins;
  replica_counters counts;
  counting_handler counted;
};

// Serves `replica`, which `source` keeps current, until a signal or the --duration; `origin`
// says where it comes from in the first line ("master node-1 at host:port").
int serve_replica(const serve_flags& f, serving& s, const zelcapi::state& replica,
                  const serve::replica_source& source, const std::string& origin) {
  const std::string& token = s.token;
  boost::asio::io_context& io = s.io;
  serve::event_feed& feed = s.feed;
  serve::overview view(io, replica, feed, source);
  serve::api_routes routes(replica, view);
  serve::limits lim;
  lim.connections = f.max_connections;
  lim.header = std::chrono::milliseconds(f.header_ms);
  lim.idle = std::chrono::milliseconds(f.idle_ms);
  lim.write = std::chrono::milliseconds(f.write_ms);
  serve::http_server server(
      io, s.host, s.port, lim, token,
      [&](const serve::request& in) {
        if (in.target.path == "/metrics") {
          return metrics_answer(replica, s.counts, source, feed, s.answered);
        }
        return routes(in);
      },
      [&feed](const std::shared_ptr<serve::event_subscriber>& client, const serve::request& in) {
        feed.subscribe(client, in);
      },
      &s.answered);
  feed.start();
  view.start();

  boost::asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&io](const boost::system::error_code& ec, int) {
    if (!ec) io.stop();
  });
  boost::asio::steady_timer end_timer(io);
  if (f.duration > 0) {
    end_timer.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(f.duration)));
    end_timer.async_wait([&io](const boost::system::error_code& ec) {
      if (!ec) io.stop();
    });
  }
  const auto at = server.local_endpoint();
  const std::string address =
      at.address().is_v6() ? "[" + at.address().to_string() + "]" : at.address().to_string();
  if (token.empty() && !at.address().is_loopback()) {
    std::fprintf(stderr,
                 "zelctl: serve: warning: listening on %s:%u without --token-file: anyone who can "
                 "reach this address reads the cluster's state\n",
                 address.c_str(), static_cast<unsigned>(at.port()));
    std::fflush(stderr);
  }
  std::printf("zelctl: serving %s at http://%s:%u/ (%s; Ctrl-C stops)\n",
              token.empty() ? "without token" : "with token", address.c_str(),
              static_cast<unsigned>(at.port()), origin.c_str());
  std::fflush(stdout);
  service_notify notify;
  const std::string url = "http://" + address + ":" + std::to_string(at.port()) + "/";
  // "52000 changes in 410 batches".
  const auto served = [&feed] {
    return plural(feed.changes(), "change", "changes") + " in " +
           plural(feed.batches(), "batch", "batches");
  };
  serve::notify_timer notifier(io, notify, [&] { return "serving " + url + ": " + served(); });
  notify.ready("serving " + url);
  notifier.start();
  io.run();
  notify.stopping();
  std::printf("zelctl: served %s\n", served().c_str());
  std::fflush(stdout);
  return exit_ok;
}

int serve_cluster(const serve_flags& f, target& t) {
  serving s(f);
  zelcapi::state_connection replica_link(&s.counted, f.history_keep, &s.plugins);
  const zelcapi::state& replica = *replica_link.get_state();
  s.feed.attach(replica);
  const login_result where = load_snapshot(replica_link, t);
  serve::cluster_link source(s.io, replica_link, t, s.feed, where);
  zelcapi::asio_attachment attached(s.io, replica_link);
  return serve_replica(f, s, replica, source,
                       "master " + where.master_id + " at " + where.host + ":" + where.port);
}

// The replica follows the mirror's saves; it keeps no history of its own (the mirror's is in its
// database).
int serve_mirror(const serve_flags& f) {
  serving s(f);
  zelcapi::state replica(s.plugins, nullptr);
  s.feed.attach(replica);
  std::unique_ptr<serve::mirror_link> source;
  try {
    source = std::make_unique<serve::mirror_link>(s.io, replica, s.plugins, s.counted, s.feed,
                                                  follow_mirror(f.from, "--from"));
  } catch (const zelbase::es::base& e) {
    throw failure(exit_failure, "cannot read --from: " + e.message());
  }
  source->start();
  const serve::source_status& link = source->status();
  return serve_replica(f, s, replica, *source,
                       "mirror at " + link.address + ", save " + std::to_string(link.save));
}

int run_serve(const serve_flags& f, target& t) {
  return f.from.empty() ? serve_cluster(f, t) : serve_mirror(f);
}

}  // namespace

command add_serve_command(CLI::App& app, global_options&) {
  CLI::App* sub = app.add_subcommand(
      "serve", "keep a replica of the cluster's state and serve it over HTTP (pages, JSON API)");
  auto f = std::make_shared<serve_flags>();
  sub->add_option("--listen", f->listen, "HOST:PORT to listen on (port 0: any free port)")
      ->capture_default_str();
  sub->add_option("--from", f->from,
                  "serve the saves of a mirror's PostgreSQL database (a libpq connection string) "
                  "instead of the cluster's state");
  sub->add_option("--token-file", f->token_file,
                  "every request must carry the token in the first line of this file")
      ->check(CLI::ExistingFile);
  sub->add_option("--history-keep", f->history_keep,
                  "seconds to keep historized records in the replica (for /api/history)")
      ->capture_default_str();
  sub->add_option("--duration", f->duration, "stop after this many seconds (0: Ctrl-C)")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  sub->add_option("--batch-ms", f->batch_ms, "milliseconds between two batches of changes")
      ->check(CLI::Range(10u, 10000u))
      ->capture_default_str();
  sub->add_option("--header-ms", f->header_ms,
                  "milliseconds a new connection may take to send its first request's header")
      ->check(CLI::Range(100u, 3600000u))
      ->capture_default_str();
  sub->add_option("--idle-ms", f->idle_ms,
                  "milliseconds a kept-alive connection may wait for its next request")
      ->check(CLI::Range(100u, 3600000u))
      ->capture_default_str();
  sub->add_option("--write-ms", f->write_ms,
                  "milliseconds one write may wait for a client that does not read, before the "
                  "client is dropped")
      ->check(CLI::Range(100u, 3600000u))
      ->capture_default_str();
  sub->add_option("--max-connections", f->max_connections, "open connections at most")
      ->check(CLI::Range(std::size_t{1}, std::size_t{100000}))
      ->capture_default_str();
  sub->add_option("--max-queue-kib", f->max_queue_kib,
                  "KiB of batches queued for one event-stream client before it gets a snapshot "
                  "instead")
      ->check(CLI::Range(std::size_t{16}, std::size_t{1048576}))
      ->capture_default_str();
  return {sub, [f](target& t) { return run_serve(*f, t); }};
}

}  // namespace zelctl
