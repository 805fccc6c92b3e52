// The password prompt (termios, echo off) and the password file.
#include "password.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>

#include "options.h"

namespace zelctl {
namespace {

// Drops a trailing "\r" left by a file written on another system.
std::string chomp(std::string line) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

std::string read_from_file(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw failure(exit_usage, "cannot read --password-file '" + path + "'");
  std::string line;
  std::getline(in, line);
  return chomp(line);
}

// Prompts on the terminal with echo off, restoring the terminal's mode afterwards.
std::string read_from_terminal(const std::string& user) {
  std::fprintf(stderr, "Password for %s: ", user.c_str());
  std::fflush(stderr);
  termios saved{};
  const bool have_mode = ::tcgetattr(STDIN_FILENO, &saved) == 0;
  if (have_mode) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
  }
  std::string line;
  const bool got = static_cast<bool>(std::getline(std::cin, line));
  if (have_mode) ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
  if (!got) throw failure(exit_usage, "no password given");
  return chomp(line);
}

}  // namespace

std::string read_password(const std::string& password_file, const std::string& user) {
  if (!password_file.empty()) return read_from_file(password_file);
  if (::isatty(STDIN_FILENO)) return read_from_terminal(user);
  std::string line;
  if (!std::getline(std::cin, line)) {
    throw failure(exit_usage, "no password: give --password-file or type it on a terminal");
  }
  return chomp(line);
}

}  // namespace zelctl
