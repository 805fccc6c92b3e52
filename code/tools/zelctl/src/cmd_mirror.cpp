// zelctl mirror: keeps a replica of the cluster's state and saves it into an SQLite file or a
// PostgreSQL database every few seconds; loads what is there first, reconnects with backoff after a
// lost link, and ends with a final save and a summary. A live status line on a terminal, log lines
// otherwise.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "commands.h"
#include "json_output.h"
#include "kinds.h"
#include "metrics_listener.h"
#include "mirror_location.h"
#include "mirror_store.h"
#include "replica_metrics.h"
#include "retry_backoff.h"
#include "service_notify.h"
#include "stop_signal.h"
#include "store_health.h"
#include "time_text.h"
#include "zelbase/exceptions.h"
#include "zelcapi/state_connection.h"
#include "zelcore/report.h"

namespace zelctl {
namespace {

using steady = std::chrono::steady_clock;

struct mirror_flags {
  std::string db;
  double duration = 0;
  double save_interval = 5;
  std::uint32_t history_keep = 600;
  std::string metrics_listen;
};

// Notes why the link went.
class link_watch final : public zelcapi::state_handler {
 public:
  void disconnected(const std::string& reason, bool) override { lost_ = reason; }
  const std::string& lost() const noexcept { return lost_; }

 private:
  std::string lost_;
};

// The number of records per snapshot key.
nlohmann::json item_counts(const zelcapi::state& st) {
  nlohmann::json counts = nlohmann::json::object();
  for (std::uint32_t type = zelcapi::state_item_client; type <= zelcapi::state_item_task; ++type) {
    const auto t = static_cast<zelcapi::state_item_type>(type);
    counts[snapshot_key_of(t)] = st.get_items(t).size();
  }
  counts["workflows"] = st.get_workflows().size();
  counts["workflow-results"] = st.get_workflow_results().size();
  return counts;
}

std::string counts_text(const nlohmann::json& counts) {
  std::string text;
  for (const auto& [key, n] : counts.items()) {
    if (!text.empty()) text += ", ";
    text += key + " " + std::to_string(n.get<std::uint64_t>());
  }
  return text;
}

std::string ms_text(double seconds) {
  char ms[32];
  std::snprintf(ms, sizeof ms, "%.1f ms", seconds * 1000);
  return ms;
}

std::string save_text(const save_figures& f) {
  if (f.saves == 0) return "no save yet";
  return "last save " + iso_time(f.last_end) + " (" + std::to_string(f.last_records) +
         " records, " + std::to_string(f.last_written) + " written, " + ms_text(f.last_seconds) +
         ")";
}

// The service manager's status line: "mirroring 101000 records, last save 2 s ago".
std::string service_status(const nlohmann::json& counts, const save_figures& f) {
  std::uint64_t records = 0;
  for (const auto& n : counts) records += n.get<std::uint64_t>();
  const auto ago = std::chrono::duration_cast<std::chrono::seconds>(
      std::chrono::system_clock::now() - f.last_end);
  return "mirroring " + std::to_string(records) + " records, " +
         (f.saves == 0 ? "no save yet" : "last save " + std::to_string(ago.count()) + " s ago");
}

// A file that a mirror created and that is removed at the end (with SQLite's files beside it)
// when the mirror never reached its cluster: a refused login leaves no empty mirror behind.
class unused_file {
 public:
  void discard(const std::string& path) { path_ = path; }
  ~unused_file() {
    if (path_.empty()) return;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) ::unlink((path_ + suffix).c_str());
  }

 private:
  std::string path_;
};

// The mirror's run: the replica, the file, the output.
class mirror {
 public:
  mirror(const mirror_flags& flags, bool json, target& t)
      : flags_(flags),
        json_(json),
        target_(t),
        location_(open_mirror(flags.db, "--db", mirror_use::write)),
        store_(
            *location_.states, [this] { return location_.last_save_counts().written; }, health_),
        history_(*location_.histories, history_held_at_most),
        counter_(watch_, counts_),
        connection_(&counter_, flags.history_keep, &plugins_),
        replica_(*connection_.get_state_non_const()),
        on_terminal_(::isatty(STDOUT_FILENO) != 0) {
    replica_.set_history_db(&history_);
  }

  int run() {
    try {
      return run_mirror();
    } catch (...) {
      if (connects_ == 0 && location_.created) unused_file_.discard(location_.name);
      throw;
    }
  }

 private:
  int run_mirror() {
    install_stop_signals();
    // The library's errors (a failed save) become log lines of the mirror.
    // The final save waits for one still running: that is no error there.
    zelcore::set_report_sink([this](const zelcore::report_record& r) {
      const bool still_active = r.message.rfind("Previous save", 0) == 0;
      const bool waited_for = finishing_ && still_active;
      // Changes that arrive between the login and the snapshot are applied to the replica that
      // the snapshot then replaces: their failures (records it lacks) mean nothing.
      const bool replaced = taking_snapshot_ && r.category != "State";
      // A skipped save is counted, and said once the save that ran ends (announce_store); in
      // an outage of the store, its beginning and end are said instead of each failed save.
      if (still_active && !finishing_) health_.save_skipped();
      const bool said_by_health =
          still_active || (r.message.rfind("Failed to update state", 0) == 0 && health_.failing());
      if (r.record_severity <= zelbase::severity_error && !waited_for && !replaced &&
          !said_by_health) {
        std::fprintf(stderr, "zelctl: mirror: %s\n", r.message.c_str());
      }
    });
    if (!flags_.metrics_listen.empty()) {
      metrics_ = std::make_unique<metrics_listener>(flags_.metrics_listen, "--metrics-listen");
      log("metrics at http://" + metrics_->address() + "/metrics");
    }
    start_ = steady::now();
    if (!take_lead()) {
      notify_.stopping();
      log("stopped standing by");
      return exit_ok;
    }
    load_file();
    retry_backoff backoff;
    while (!finished() && !lost_lead()) {
      if (!reach_cluster(backoff)) continue;
      backoff.reset();
      keep_current();
      if (!connection_.is_connected() && !finished() && !lost_lead()) {
        end_status_line();
        log("lost the link to the cluster (" + watch_.lost() + "); reconnecting");
      }
    }
    end_status_line();
    notify_.stopping();
    if (lost_lead()) {
      throw failure(exit_failure,
                    "mirror: lost the lead of " + location_.name +
                        ": its session ended and another mirror holds the writer lock now; "
                        "ending without a final save (start again to stand by)");
    }
    finishing_ = true;
    replica_.save_state_to_db(true);
    write_history();
    announce_store();
    // A store that still fails at the end lost the last save: not a success to a script.
    const bool unsaved = health_.failing();
    if (unsaved) {
      std::fprintf(stderr,
                   "zelctl: mirror: %s was still failing at the end: the last save and %zu "
                   "history writes were not written\n",
                   location_.name.c_str(), history_.held());
    }
    print_summary();
    return unsaved ? exit_failure : exit_ok;
  }

  // How often a standby tries to take the lead: the longest wait after the leader's end.
  static constexpr std::chrono::milliseconds lead_poll{100};
  // History writes held while the store fails, at most (the oldest go first).
  static constexpr std::size_t history_held_at_most = 100000;

  double elapsed() const { return std::chrono::duration<double>(steady::now() - start_).count(); }
  bool finished() const {
    return stop_requested() || (flags_.duration > 0 && elapsed() >= flags_.duration);
  }

  // A server's database is kept by one mirror at a time: while another leads, this one stands
  // by and takes over when the leader's sessions end. False when the mirror was stopped first.
  bool take_lead() {
    if (!location_.try_lead || try_lead()) return true;
    const auto since = steady::now();
    log("standing by: another mirror leads " + location_.name +
        "; taking over when its sessions end");
    notify_.ready("standing by: another mirror leads");
    while (!finished()) {
      notify_.keep_alive();
      serve_metrics();
      std::this_thread::sleep_for(lead_poll);
      if (try_lead()) {
        log("took over " + location_.name + " after " +
            std::to_string(std::chrono::duration<double>(steady::now() - since).count())
                .substr(0, 5) +
            " s standing by");
        return true;
      }
    }
    return false;
  }

  // One attempt to take the lead; a server that cannot be reached is said once, and again
  // when its error changes.
  bool try_lead() {
    try {
      const bool taken = location_.try_lead();
      lead_error_.clear();
      return taken;
    } catch (const zelbase::es::base& e) {
      if (e.message() != lead_error_) log("standing by: " + e.message());
      lead_error_ = e.message();
      return false;
    }
  }

  bool lost_lead() const { return location_.leads && !location_.leads(); }

  void load_file() {
    try {
      const bool saved = location_.states->has_saved_state();
      replica_.set_and_update_from_state_db(&store_);
      log(saved ? "loaded " + location_.name + ": " + counts_text(item_counts(replica_))
                : "new mirror " + location_.name);
    } catch (const zelbase::es::base& e) {
      throw failure(exit_failure, "cannot load --db '" + location_.name + "': " + e.message());
    }
  }

  // Writes the history that the replica gathered since the last call. While the store fails,
  // the writes are held and tried only after a save committed again; a failure begins or
  // continues an outage (said by announce_store), and the mirror goes on.
  void write_history() {
    health_.history_held(history_.held());
    if (!health_.may_write_history()) return;
    try {
      history_.flush();
      health_.history_written();
    } catch (const zelbase::es::base& e) {
      health_.history_failed(e.message());
    }
  }

  // Says an outage of the store that began, once, and one that ended, with what it cost; and
  // the saves skipped while a slow one was still writing.
  void announce_store() {
    if (lost_lead()) return;  // the mirror ends with its own line
    if (const auto skipped = health_.take_skipped()) {
      end_status_line();
      std::fprintf(stderr,
                   "zelctl: mirror: %llu save(s) skipped while the one before was still "
                   "writing; consider a longer --save-interval or a shorter --history-keep\n",
                   static_cast<unsigned long long>(*skipped));
    }
    if (const auto began = health_.take_began()) {
      end_status_line();
      std::fprintf(stderr,
                   "zelctl: mirror: the mirror's store is failing: %s; saves go on trying, "
                   "history is held until one succeeds, and its return will be said\n",
                   began->error.c_str());
    }
    if (const auto ended = health_.take_ended()) {
      end_status_line();
      char seconds[32];
      std::snprintf(seconds, sizeof seconds, "%.1f", ended->seconds);
      std::string text = location_.name + " is back after " + seconds +
                         " s: " + std::to_string(ended->saves_not_written) +
                         " saves failed or skipped, " + std::to_string(ended->history_writes_held) +
                         " history writes held meanwhile and written now";
      if (history_.dropped() > dropped_said_) {
        text += " (" + std::to_string(history_.dropped() - dropped_said_) +
                " older ones dropped: more than " + std::to_string(history_held_at_most) +
                " were held)";
        dropped_said_ = history_.dropped();
      }
      log(text);
    }
  }

  // A fresh snapshot's history goes to the store as well: it holds what the cluster
  // historized while the mirror was away.
  void store_snapshot_history() {
    if (!replica_.has_history()) return;
    for (std::uint32_t type = zelcapi::state_item_client; type <= zelcapi::state_item_task;
         ++type) {
      const auto kind = static_cast<zelcapi::state_item_type>(type);
      for (const auto& [id, record] : replica_.get_history_items(kind))
        history_.store_item(static_cast<zelcapi::db_item_type>(type), id, record);
    }
    write_history();
  }

  // Connects, logs in and loads the snapshot; when the cluster cannot be reached waits the
  // backoff's next wait and returns false. A refused login or a usage error (no password) ends
  // the mirror.
  bool reach_cluster(retry_backoff& backoff) {
    try {
      taking_snapshot_ = true;
      const login_result where = load_snapshot(connection_, target_);
      taking_snapshot_ = false;
      store_snapshot_history();
      ++connects_;
      log(std::string(connects_ > 1 ? "reconnected" : "connected") + " to " + where.master_id +
          " at " + where.host + ":" + where.port + "; snapshot " +
          counts_text(item_counts(replica_)));
      if (connects_ == 1) notify_.ready(service_status(item_counts(replica_), store_.figures()));
      return true;
    } catch (const login_refused&) {
      throw;
    } catch (const failure& e) {
      taking_snapshot_ = false;
      if (e.code() != exit_connection) throw;
      end_status_line();
      const retry_backoff::duration wait = backoff.next();
      log(std::string(e.what()) + "; retrying in " +
          std::to_string(std::chrono::duration<double>(wait).count()).substr(0, 4) + " s");
      const auto until = steady::now() + wait;
      notify_.status(e.what());
      while (!finished() && steady::now() < until) {
        notify_.keep_alive();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        serve_metrics();
      }
      return false;
    }
  }

  // Applies the notifications until the link goes or the mirror ends; saves on schedule.
  void keep_current() {
    auto next_save = steady::now() + interval();
    auto next_status = steady::now();
    std::uint64_t saves_logged = store_.figures().saves;
    while (connection_.is_connected() && !finished() && !lost_lead()) {
      connection_.wait(100);
      serve_metrics();
      write_history();
      announce_store();
      const auto now = steady::now();
      if (now >= next_save) {
        replica_.save_state_to_db(false);
        replica_.clean_history();
        next_save = now + interval();
      }
      const save_figures figures = store_.figures();
      notify_.keep_alive();
      if (notify_.status_due()) notify_.status(service_status(item_counts(replica_), figures));
      if (on_terminal_ && now >= next_status) {
        status_line(figures);
        next_status = now + std::chrono::milliseconds(500);
      } else if (!on_terminal_ && figures.saves > saves_logged) {
        log("saved " + std::to_string(figures.last_records) + " records (" +
            std::to_string(figures.last_written) + " written) in " + ms_text(figures.last_seconds) +
            "; " + std::to_string(counts_.changes) + " changes applied");
      }
      saves_logged = figures.saves;
    }
  }

  // Makes the metrics text when a scrape waits for it.
  void serve_metrics() {
    if (!metrics_) return;
    metrics_->serve_pending([this](metrics_text& out) {
      write_replica_metrics(out, replica_, counts_,
                            {connection_.is_connected(), connects_ > 0 ? connects_ - 1 : 0});
      write_save_metrics(out, store_.figures());
      if (location_.leads) {
        out.family("zelcapi_mirror_leader", "gauge",
                   "Whether this mirror leads its database (1) or stands by (0).");
        out.sample("zelcapi_mirror_leader", std::uint64_t{location_.leads() ? 1u : 0u});
      }
    });
  }

  steady::duration interval() const {
    return std::chrono::duration_cast<steady::duration>(
        std::chrono::duration<double>(flags_.save_interval));
  }

  void status_line(const save_figures& figures) {
    const auto now = steady::now();
    const double seconds = std::chrono::duration<double>(now - rate_since_).count();
    if (seconds >= 1) {
      rate_ = static_cast<double>(counts_.changes - rate_changes_) / seconds;
      rate_since_ = now;
      rate_changes_ = counts_.changes;
    }
    std::printf("\r%.0f changes/s | %s | %s\x1b[K", rate_,
                counts_text(item_counts(replica_)).c_str(), save_text(figures).c_str());
    std::fflush(stdout);
    status_shown_ = true;
  }

  void end_status_line() {
    if (!status_shown_) return;
    std::printf("\n");
    status_shown_ = false;
  }

  void log(const std::string& text) {
    std::printf("%szelctl mirror: %s\n", log_stamp().c_str(), text.c_str());
    std::fflush(stdout);
  }

  void print_summary() {
    const save_figures f = store_.figures();
    const nlohmann::json items = item_counts(replica_);
    if (json_) {
      nlohmann::json summary{
          {"file", location_.name}, {"seconds", elapsed()}, {"changes-applied", counts_.changes},
          {"connects", connects_},  {"saves", f.saves},     {"items", items}};
      if (f.saves > 0) {
        summary["last-save"] = iso_time(f.last_end);
        summary["last-save-seconds"] = f.last_seconds;
        summary["last-save-records"] = f.last_records;
        summary["last-save-written"] = f.last_written;
      }
      print_json(summary, true);
      return;
    }
    std::printf("mirror summary\n");
    std::printf("  mirror:          %s\n", location_.name.c_str());
    std::printf("  ran:             %.1f s, %llu connection(s)\n", elapsed(),
                static_cast<unsigned long long>(connects_));
    std::printf("  changes applied: %llu\n", static_cast<unsigned long long>(counts_.changes));
    std::printf("  saves:           %llu, %s\n", static_cast<unsigned long long>(f.saves),
                save_text(f).c_str());
    std::printf("  items:           %s\n", counts_text(items).c_str());
    std::fflush(stdout);
  }

  const mirror_flags& flags_;
  bool json_;
  target& target_;
  store_health health_;      // before the stores that tell it
  unused_file unused_file_;  // removed after the stores closed it
  mirror_location location_;
  timed_state_db store_;
  queued_history_db history_;
  zelcore::plugin_db plugins_;
  link_watch watch_;
  replica_counters counts_;
  counting_handler counter_;
  zelcapi::state_connection connection_;
  zelcapi::state& replica_;
  bool on_terminal_;
  service_notify notify_;
  steady::time_point start_{};
  std::uint64_t connects_ = 0;
  std::string lead_error_;          // the last error of a standby's attempt to lead, said once
  std::uint64_t dropped_said_ = 0;  // history writes dropped that a line has told of
  bool status_shown_ = false;
  // Read by the report sink, which the saver's thread calls too.
  std::atomic<bool> finishing_{false};
  std::atomic<bool> taking_snapshot_{false};
  std::unique_ptr<metrics_listener> metrics_;  // with --metrics-listen
  steady::time_point rate_since_ = steady::now();
  std::uint64_t rate_changes_ = 0;
  double rate_ = 0;
};

}  // namespace

command add_mirror_command(CLI::App& app, global_options& options) {
  CLI::App* sub = app.add_subcommand(
      "mirror",
      "keep a replica of the cluster's state and save it into an SQLite file or a PostgreSQL "
      "database");
  auto flags = std::make_shared<mirror_flags>();
  sub->add_option("--db", flags->db,
                  "the SQLite file, or a PostgreSQL connection string (postgresql://... or "
                  "key=value; a password goes in PGPASSFILE or ~/.pgpass), created when missing, "
                  "loaded when not")
      ->required();
  sub->add_option("--duration", flags->duration, "stop after this many seconds (0: Ctrl-C)")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  sub->add_option("--save-interval", flags->save_interval, "seconds between saves")
      ->check(CLI::Range(0.1, 86400.0))
      ->capture_default_str();
  sub->add_option("--history-keep", flags->history_keep,
                  "seconds to keep historized records in the replica")
      ->capture_default_str();
  sub->add_option("--metrics-listen", flags->metrics_listen,
                  "HOST:PORT to serve the mirror's metrics on, at /metrics (port 0: any free "
                  "port)");
  add_json_flag(*sub, options);
  return {sub, [flags, &options](target& t) {
            mirror m(*flags, options.json, t);
            return m.run();
          }};
}

}  // namespace zelctl
