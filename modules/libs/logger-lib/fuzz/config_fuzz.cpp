// libFuzzer entry for the logging configuration reader: whatever the file holds, reading it
// either gives a configuration or a ConfigError, never a crash or another exception.
#include "config.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const auto config = xpon::logger::detail::parse_config(text, "fuzz.conf");
    if (config.sinks.empty()) {
      __builtin_trap();  // the reader promises at least one sink
    }
  } catch (const xpon::logger::detail::ConfigError&) {
  }
  return 0;
}
