// Test support: the message of the exception that a call raises.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace zeltest {

// The message of the E that `f` raises; fails the test (and gives "") when it raises nothing.
template <class E, class F>
std::string raised_message(F f) {
  try {
    f();
  } catch (const E& e) {
    return e.message();
  }
  ADD_FAILURE() << "nothing was raised";
  return "";
}

}  // namespace zeltest
