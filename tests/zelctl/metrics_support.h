// Test support for zelctl's metrics: the samples of a metrics text, promtool's check of it, and
// a private Prometheus server that scrapes a target and answers queries.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/child_process.h"
#include "support/http_peer.h"

namespace zelctl_test {

// Each sample line of a metrics text: "name{labels}" as written -> its value. Comments and
// blank lines are skipped.
inline std::map<std::string, double> metric_samples(const std::string& text) {
  std::map<std::string, double> samples;
  for (const std::string& line : zeltest::lines_of(text)) {
    if (line.empty() || line[0] == '#') continue;
    const std::size_t space = line.rfind(' ');
    if (space == std::string::npos) continue;
    samples[line.substr(0, space)] = std::strtod(line.c_str() + space + 1, nullptr);
  }
  return samples;
}

// The sum of a family's samples whose name is `name` exactly (any labels).
inline double metric_sum(const std::map<std::string, double>& samples, const std::string& name) {
  double sum = 0;
  for (const auto& [key, value] : samples) {
    if (key == name || key.compare(0, name.size() + 1, name + "{") == 0) sum += value;
  }
  return sum;
}

// A program of Debian's prometheus package, or "" when it is not installed.
inline std::string prometheus_program(const char* name) {
  const std::string path = std::string("/usr/bin/") + name;
  return ::access(path.c_str(), X_OK) == 0 ? path : "";
}

// A port of 127.0.0.1 that was free a moment ago (for a program that cannot take port 0).
inline std::uint16_t free_loopback_port() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof at;
  std::uint16_t port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&at), &size) == 0) {
    port = ntohs(at.sin_port);
  }
  ::close(fd);
  return port;
}

// "%XX" for every byte of a query value but letters and digits.
inline std::string query_escaped(const std::string& text) {
  std::string out;
  for (const unsigned char c : text) {
    if (std::isalnum(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += "0123456789ABCDEF"[c >> 4];
      out += "0123456789ABCDEF"[c & 15];
    }
  }
  return out;
}

// A Prometheus server of its own (a data directory in `dir`, a free port) scraping
// 127.0.0.1:`target_port`/metrics every second, with `bearer_file` as the bearer token's file
// when it is not empty.
class prometheus_server {
 public:
  prometheus_server(const zeltest::temp_dir& dir, std::uint16_t target_port,
                    const std::string& bearer_file = "") {
    std::ofstream config(dir.file("prometheus.yml"));
    config << "global:\n  scrape_interval: 1s\n  evaluation_interval: 1s\n"
           << "scrape_configs:\n  - job_name: zelctl\n    scrape_interval: 1s\n"
           << "    scrape_timeout: 1s\n"
           << "    static_configs:\n      - targets: ['127.0.0.1:" << target_port << "']\n";
    if (!bearer_file.empty()) {
      config << "    authorization:\n      type: Bearer\n      credentials_file: " << bearer_file
             << "\n";
    }
    config.close();
    port_ = free_loopback_port();
    process_ = std::make_unique<zeltest::child_process>(
        prometheus_program("prometheus"),
        std::vector<std::string>{"--config.file=" + dir.file("prometheus.yml"),
                                 "--storage.tsdb.path=" + dir.file("prometheus-data"),
                                 "--web.listen-address=127.0.0.1:" + std::to_string(port_)});
  }

  // Waits until the server says it is ready; false when `limit` passed first (or it ended).
  bool ready(std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < until) {
      if (process_->has_exited()) return false;
      if (zeltest::http_get(port_, "/-/ready").status == 200) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return false;
  }

  // The value of an instant query's single sample; "" when the answer holds none.
  std::string query(const std::string& promql) const {
    const zeltest::http_answer a =
        zeltest::http_get(port_, "/api/v1/query?query=" + query_escaped(promql));
    if (a.status != 200) return "";
    const nlohmann::json answer = nlohmann::json::parse(a.body, nullptr, false);
    if (answer.is_discarded() || answer.value("status", "") != "success") return "";
    const nlohmann::json& result = answer["data"]["result"];
    if (!result.is_array() || result.size() != 1) return "";
    return result[0]["value"][1].get<std::string>();
  }

  std::string log() const { return process_->err(); }

 private:
  std::uint16_t port_ = 0;
  std::unique_ptr<zeltest::child_process> process_;
};

}  // namespace zelctl_test
