// The exception family of the zel libraries.
#include "zelbase/exceptions.h"

#include <utility>

namespace zelbase::es {

base::base(const char* file, unsigned line, std::string message)
    : file_(file ? file : ""), line_(line), message_(std::move(message)) {}
base::~base() = default;
const char* base::what() const noexcept { return message_.c_str(); }
const std::string& base::message() const noexcept { return message_; }

arg::~arg() = default;
void arg::raise(const char* file, unsigned line, const std::string& message) {
  throw arg(file, line, message);
}

uspec::~uspec() = default;
void uspec::raise(const char* file, unsigned line, const std::string& message) {
  throw uspec(file, line, message);
}

api_code::api_code(const char* file, unsigned line, std::int64_t code, std::string message)
    : base(file, line, std::move(message)), code_(code) {}
api_code::~api_code() = default;
void api_code::raise(const char* file, unsigned line, std::int64_t code,
                     const std::string& message) {
  throw api_code(file, line, code, message);
}

}  // namespace zelbase::es
