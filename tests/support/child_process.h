// Test support: runs a program of the build as a child process with its output in files,
// bounded in time, and the scratch directories its runs need.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace zeltest {

inline std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A fresh directory for a test's files, removed at the end.
struct temp_dir {
  std::string path;
  temp_dir() {
    char name[] = "/tmp/zel-test-XXXXXX";
    path = ::mkdtemp(name);
  }
  ~temp_dir() { std::system(("rm -rf '" + path + "'").c_str()); }
  temp_dir(const temp_dir&) = delete;
  temp_dir& operator=(const temp_dir&) = delete;
  std::string file(const std::string& name) const { return path + "/" + name; }
};

// `program` running as a child with `args`, `input` on its stdin and its stdout and stderr in
// files. Killed at the end unless waited for.
class child_process {
 public:
  child_process(const std::string& program, const std::vector<std::string>& args,
                const std::string& input = "") {
    static int serial = 0;
    const std::string base = dir_.file("run" + std::to_string(serial++));
    out_path_ = base + ".out";
    err_path_ = base + ".err";
    const std::string in_path = base + ".in";
    std::ofstream(in_path) << input;
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      const int in = ::open(in_path.c_str(), O_RDONLY);
      const int out = ::open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = ::open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(in, STDIN_FILENO);
      ::dup2(out, STDOUT_FILENO);
      ::dup2(err, STDERR_FILENO);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
  }
  ~child_process() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  // Waits up to `limit` for the exit; its exit code, or -1 (and a kill) when it ran over.
  int wait(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!has_exited()) {
      if (std::chrono::steady_clock::now() > until) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = 0;
        return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return code_;
  }
  // Whether the program has ended; its exit code is then kept for wait.
  bool has_exited() {
    int status = 0;
    if (pid_ > 0 && ::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = 0;
      code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return pid_ == 0;
  }
  void signal(int number) {
    if (pid_ > 0) ::kill(pid_, number);
  }
  // Waits until stdout holds `text`; false when `limit` passed first.
  bool wait_for_output(const std::string& text,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    return wait_for_text(out_path_, text, limit);
  }
  // Waits until stderr holds `text`; false when `limit` passed first.
  bool wait_for_error(const std::string& text,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    return wait_for_text(err_path_, text, limit);
  }
  std::string out() const { return read_file(out_path_); }
  std::string err() const { return read_file(err_path_); }

 private:
  static bool wait_for_text(const std::string& path, const std::string& text,
                            std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (read_file(path).find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  temp_dir dir_;
  pid_t pid_ = 0;
  int code_ = -1;
  std::string out_path_;
  std::string err_path_;
};

struct run_result {
  int code;
  std::string out;
  std::string err;
};

// Runs `program` to its end.
inline run_result run_program(const std::string& program, const std::vector<std::string>& args,
                              const std::string& input = "") {
  child_process p(program, args, input);
  const int code = p.wait();
  return {code, p.out(), p.err()};
}

}  // namespace zeltest
