// zelctl history: asks the master for historized records of one kind (all, or those of a state
// id, client id or submission id), or reads them from a mirror with --from, and prints the list
// as JSON.
#include <chrono>
#include <memory>
#include <string>

#include "commands.h"
#include "json_output.h"
#include "kinds.h"
#include "mirror_location.h"
#include "zelbase/exceptions.h"
#include "zelcapi/state_connection.h"
#include "zelcore/report.h"

namespace zelctl {
namespace {

struct history_flags {
  std::string kind;
  std::string state_id;
  std::string client_id;
  std::string submission_id;
  std::string from;
};

const std::uint32_t request_id = 1;

// Keeps the answer to our request.
class history_receiver final : public zelcapi::state_handler {
 public:
  bool history_request_reply(std::uint32_t id, const zelcore::property_list& history) override {
    if (id == request_id) {
      answer_ = to_json(history);
      answered_ = true;
    }
    return true;
  }
  void disconnected(const std::string& reason, bool) override { lost_ = reason; }

  bool answered() const noexcept { return answered_; }
  const nlohmann::json& answer() const noexcept { return answer_; }
  const std::string& lost() const noexcept { return lost_; }

 private:
  nlohmann::json answer_;
  bool answered_ = false;
  std::string lost_;
};

void send_request(zelcapi::state_connection& c, const history_flags& f,
                  zelcapi::state_item_type type) {
  if (!f.state_id.empty()) {
    c.request_history_items_by_state_id(type, f.state_id, request_id);
  } else if (!f.client_id.empty()) {
    c.request_history_items_by_client_id(type, f.client_id, request_id);
  } else if (!f.submission_id.empty()) {
    c.request_history_items_by_submission_id(type, f.submission_id, request_id);
  } else {
    c.request_history_items_by_type(type, request_id);
  }
}

// The mirror's historized records that the flags select, in id order, as the master lists them.
nlohmann::json mirror_history(const history_flags& f, zelcapi::state_item_type type) {
  const mirror_location mirror = open_mirror(f.from, "--from", mirror_use::read_history);
  const auto kind = static_cast<zelcapi::db_item_type>(type);
  nlohmann::json list = nlohmann::json::array();
  try {
    if (!f.state_id.empty()) {
      zelcore::properties record;
      if (mirror.histories->load_item(kind, f.state_id, record)) list.push_back(to_json(record));
      return list;
    }
    zelcapi::properties_cptr records;
    if (!f.client_id.empty())
      records = mirror.histories->load_items_where(kind, "client-id", f.client_id);
    else if (!f.submission_id.empty())
      records = mirror.histories->load_items_where(kind, "submission-id", f.submission_id);
    else
      records = mirror.histories->load_items(kind);
    for (const auto& [id, record] : *records)
      list.push_back(to_json(static_cast<const zelcore::properties&>(*record)));
  } catch (const zelbase::es::base& e) {
    throw failure(exit_failure, "cannot read --from '" + mirror.name + "': " + e.message());
  }
  return list;
}

int run_history(const history_flags& f, target& t) {
  zelcapi::state_item_type type{};
  item_type_of(f.kind, type);
  if (!f.from.empty()) {
    print_json(mirror_history(f, type), true);
    return exit_ok;
  }
  history_receiver receiver;
  zelcapi::state_connection c(&receiver);
  log_in(c, t);
  // A refused request is only reported by the library: catch that report while we wait.
  std::string refusal;
  const zelcore::report_sink previous =
      zelcore::set_report_sink([&refusal](const zelcore::report_record& r) {
        if (r.category == "state_connection") refusal = r.message;
      });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(t.timeout());
  try {
    send_request(c, f, type);
    while (!receiver.answered() && refusal.empty() && c.is_connected() &&
           std::chrono::steady_clock::now() < deadline) {
      c.wait(50);
    }
  } catch (...) {
    zelcore::set_report_sink(previous);
    throw;
  }
  zelcore::set_report_sink(previous);
  if (!receiver.answered()) {
    if (!refusal.empty()) throw failure(exit_failure, "the cluster refused: " + refusal);
    if (!c.is_connected()) {
      throw failure(exit_connection, "lost the link to the cluster: " + receiver.lost());
    }
    throw failure(exit_failure,
                  "no answer to the history request within " + std::to_string(t.timeout()) + " s");
  }
  print_json(receiver.answer(), true);
  return exit_ok;
}

std::vector<std::string> item_kind_names() {
  std::vector<std::string> names;
  zelcapi::state_item_type type{};
  for (const auto& name : kind_names()) {
    if (item_type_of(name, type)) names.push_back(name);
  }
  return names;
}

}  // namespace

command add_history_command(CLI::App& app, global_options& options) {
  CLI::App* sub =
      app.add_subcommand("history", "print historized records of one kind as a JSON list");
  auto flags = std::make_shared<history_flags>();
  sub->add_option("--kind", flags->kind, "the kind of record (jobs, tasks, submissions, ...)")
      ->required()
      ->check(CLI::IsMember(item_kind_names()));
  CLI::Option* state_id =
      sub->add_option("--state-id", flags->state_id, "only the record of this id");
  CLI::Option* client_id =
      sub->add_option("--client-id", flags->client_id, "only records of this client id");
  CLI::Option* submission_id = sub->add_option("--submission-id", flags->submission_id,
                                               "only records of this submission id");
  state_id->excludes(client_id)->excludes(submission_id);
  client_id->excludes(submission_id);
  sub->add_option("--from", flags->from,
                  "read what a mirror (an SQLite file or a PostgreSQL connection string) "
                  "historized instead of asking the cluster");
  add_json_flag(*sub, options);
  return {sub, [flags](target& t) { return run_history(*flags, t); }};
}

}  // namespace zelctl
