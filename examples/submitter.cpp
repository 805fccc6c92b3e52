// submitter: logs in to a cluster, sends one request, waits for its reply and prints it.
//
//   submitter HOST PORT USER PASSWORD [REQUEST [KEY=VALUE ...]]
//
// Without REQUEST it asks the master for the jobs that went to history
// ("cluster.api.history.request" with item-type=5). A VALUE that is a whole number travels as
// an int, "true"/"false" as a bool, anything else as a string. Exit status: 0 when the reply
// came and holds no "error", 1 when the cluster could not be reached, refused the login or
// answered with an error, 2 for bad arguments.
#include <zelcapi/zelcapi.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace {

// Adds "KEY=VALUE" to the request; false when the argument has no key.
bool add_field(zelcore::properties& fields, const std::string& argument) {
  const std::size_t equals = argument.find('=');
  if (equals == std::string::npos || equals == 0) return false;
  const std::string key = argument.substr(0, equals);
  const std::string value = argument.substr(equals + 1);
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(value.c_str(), &end, 10);
  if (!value.empty() && *end == '\0' && errno == 0) {
    fields.set_int_value(key, number);
  } else if (value == "true" || value == "false") {
    fields.set_bool_value(key, value == "true");
  } else {
    fields.set_string_value(key, value);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: %s HOST PORT USER PASSWORD [REQUEST [KEY=VALUE ...]]\n", argv[0]);
    return 2;
  }
  zelnet::zelp::packet request(zelnet::zelp::packet::type_request,
                               argc > 5 ? argv[5] : "cluster.api.history.request");
  if (argc <= 5) request.get_properties().set_int_value("item-type", zelcapi::state_item_job);
  for (int i = 6; i < argc; ++i) {
    if (!add_field(request.get_properties(), argv[i])) {
      std::fprintf(stderr, "submitter: '%s' is not KEY=VALUE\n", argv[i]);
      return 2;
    }
  }

  // The library reports its own progress through zelcore::report; only errors matter here.
  zelcore::set_report_threshold(zelbase::severity_error);
  const unsigned timeout = 10;
  zelcapi::connection c;
  const zelcapi::result_code connected = c.connect(argv[1], argv[2], timeout);
  if (connected != zelcapi::connection_ok) {
    std::fprintf(stderr, "submitter: cannot connect to %s:%s: %s\n", argv[1], argv[2],
                 zelcapi::result_code_c_str(connected));
    return 1;
  }
  try {
    // Any node will do: login_sync follows the cluster to its master, where requests go.
    const zelnet::zelp::packet& login = c.login_sync(argv[3], argv[4], "", "", timeout, false);
    if (login.get_properties().is_present("error")) {
      // A refusal of the cluster ("Access denied") or the library's own give-up, whose text is
      // that of the result_code under "result-code" ("Cluster Master not found").
      std::fprintf(stderr, "submitter: login as '%s' failed: %s\n", argv[3],
                   login.get_properties().get_string_value("error", "").c_str());
      return 1;
    }
    // The reply lives in the connection until the next synchronous call: print it now.
    const zelnet::zelp::packet& reply = c.send_sync(request, timeout);
    std::printf("%s %s\n", reply.get_name().c_str(), reply.get_properties().describe().c_str());
    if (reply.get_properties().is_present("error")) {
      std::fprintf(stderr, "submitter: %s refused: %s\n", request.get_name().c_str(),
                   reply.get_properties().get_string_value("error", "").c_str());
      return 1;
    }
  } catch (const std::exception& e) {
    // The library raises zelbase::es errors for transport failures (no link, a time-out, the
    // link lost while waiting); a reply field of an unexpected kind raises too.
    std::fprintf(stderr, "submitter: %s\n", e.what());
    return 1;
  }
  return 0;
}
