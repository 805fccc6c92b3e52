// admin_status: logs in as an administrator and prints the cluster's status: its master, and
// every node with its host, port and role.
//
//   admin_status HOST PORT ADMIN PASSWORD
//
// Output:
//   master: node-1
//   node-1 127.0.0.1:7000 master
//   node-2 127.0.0.1:7001 node
// Exit status: 0 on success, 1 when the cluster could not be reached or refused the login, 2 for
// bad arguments.
#include <zelcapi/zelcapi.h>

#include <cstdio>
#include <exception>
#include <string>

namespace {

// Prints the status reply's master and its host list, one node a line.
void print_status(const zelcore::properties& status) {
  const std::string& master = status.get_string_value("master-id", "");
  std::printf("master: %s\n", master.c_str());
  const zelcore::properties* hosts = status.get_properties_value_ptr("host-list");
  if (hosts == nullptr) return;
  for (const auto& [id, entry] : *hosts) {
    // A newer cluster may list more than trees of hosts: skip what this program cannot read.
    if (!entry || entry->kind() != zelcore::property::kind_properties) continue;
    const auto& node = static_cast<const zelcore::properties&>(*entry);
    std::printf("%s %s:%s %s\n", id.c_str(), node.get_string_value("hostname", "?").c_str(),
                node.get_string_value("client-port", "?").c_str(),
                id == master ? "master" : "node");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s HOST PORT ADMIN PASSWORD\n", argv[0]);
    return 2;
  }
  zelcore::set_report_threshold(zelbase::severity_error);
  zelcapi::connection c;
  const zelcapi::result_code connected = c.connect(argv[1], argv[2], 10);
  if (connected != zelcapi::connection_ok) {
    std::fprintf(stderr, "admin_status: cannot connect to %s:%s: %s\n", argv[1], argv[2],
                 zelcapi::result_code_c_str(connected));
    return 1;
  }
  try {
    // The status request needs no login and, like a login, follows the cluster to its master,
    // so the admin login below goes to the master too. The reply is copied: the next
    // synchronous call reuses the connection's reply slot.
    const zelcore::properties status = c.get_cluster_status().get_properties();
    if (status.is_present("error")) {
      std::fprintf(stderr, "admin_status: cluster status failed: %s\n",
                   status.get_string_value("error", "").c_str());
      return 1;
    }
    const zelnet::zelp::packet& login = c.admin_login_sync(argv[3], argv[4], 10);
    if (login.get_properties().is_present("error")) {
      std::fprintf(stderr, "admin_status: admin login as '%s' failed: %s\n", argv[3],
                   login.get_properties().get_string_value("error", "").c_str());
      return 1;
    }
    print_status(status);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "admin_status: %s\n", e.what());
    return 1;
  }
  return 0;
}
