// Reading the login password: from --password-file, else from a prompt on the terminal with
// echo off, else from one line of standard input. The password is never echoed or printed.
#pragma once

#include <string>

namespace zelctl {

// The password for `user`; raises failure (exit_usage) when the file cannot be read or nothing
// can be read.
std::string read_password(const std::string& password_file, const std::string& user);

}  // namespace zelctl
