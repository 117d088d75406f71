#pragma once

#include <cstring>
#include <string>

namespace xpon::board {

/// The C library's text for an errno value; unlike strerror it is safe on any thread.
inline std::string errno_text(int error_number) {
  char buffer[256] = {};
  // GNU strerror_r returns either the buffer or a static text.
  return ::strerror_r(error_number, buffer, sizeof buffer);
}

}  // namespace xpon::board
