// The exception family raised by every zel library: es::base and its kinds.
// Each raiser builds the exception with the raising source file and line, throws it and
// never returns.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "zelbase/export.h"

namespace zelbase::es {

// Root of every error raised by the zel libraries; what() gives the message.
class ZELBASE_EXPORT base : public std::exception {
 public:
  base(const char* file, unsigned line, std::string message);
  ~base() override;

  const char* what() const noexcept override;
  virtual const std::string& message() const noexcept;
  const std::string& file() const noexcept { return file_; }
  unsigned line() const noexcept { return line_; }

 private:
  std::string file_;
  unsigned line_;
  std::string message_;
};

// A bad argument: unknown id or item type, duplicate id, unknown action, malformed input.
class ZELBASE_EXPORT arg : public base {
 public:
  using base::base;
  ~arg() override;
  [[noreturn]] static void raise(const char* file, unsigned line, const std::string& message);
};

// An unspecified failure: transport failures of synchronous calls, missing history.
class ZELBASE_EXPORT uspec : public base {
 public:
  using base::base;
  ~uspec() override;
  [[noreturn]] static void raise(const char* file, unsigned line, const std::string& message);
};

// A failure that carries the system's signed 64-bit error code.
class ZELBASE_EXPORT api_code : public base {
 public:
  api_code(const char* file, unsigned line, std::int64_t code, std::string message);
  ~api_code() override;
  std::int64_t code() const noexcept { return code_; }
  [[noreturn]] static void raise(const char* file, unsigned line, std::int64_t code,
                                 const std::string& message);

 private:
  std::int64_t code_;
};

}  // namespace zelbase::es
