// Test support: the resident memory of this process as the kernel counts it, and its peak since a
// reset, to measure what an operation holds at most, C allocations (libpq's) included. Freed heap
// is given back to the system first, so that memory used again counts again.
#pragma once

#include <malloc.h>

#include <cstddef>
#include <fstream>
#include <string>

namespace zeltest {

// A line of /proc/self/status ("VmRSS", "VmHWM") in bytes; 0 when it cannot be read.
inline std::size_t process_status_bytes(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field + ":", 0) == 0) return std::stoull(line.substr(field.size() + 1)) * 1024;
  }
  return 0;
}

// The resident bytes now, after giving freed heap back to the system.
inline std::size_t resident_bytes() {
  ::malloc_trim(0);
  return process_status_bytes("VmRSS");
}

// Starts a new peak at the resident bytes now; false when the kernel refuses.
inline bool reset_resident_peak() {
  ::malloc_trim(0);
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  clear.flush();
  return static_cast<bool>(clear);
}

// The most bytes resident at once since the last reset.
inline std::size_t resident_peak_bytes() { return process_status_bytes("VmHWM"); }

// Whether a sanitizer's allocator runs: its quarantine and shadow memory make resident sizes say
// nothing of the code's own needs.
constexpr bool sanitized_allocator() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#else
  return false;
#endif
}

}  // namespace zeltest
