// Feeds arbitrary bytes to the request head parser and checks what must hold for every input:
// a refusal is 400 or 505 with a reason, and an accepted head has a token method, a path that
// starts the target, and a version of 1.0 or 1.1.
#include "xpon/metrics/request_head.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace xpon::metrics;
  const std::string_view received(reinterpret_cast<const char*>(data), size);
  const auto head_size = request_head_size(received);
  if (head_size && *head_size > size) {
    __builtin_trap();
  }
  const std::string_view head = head_size ? received.substr(0, *head_size) : received;
  const RequestHeadResult parsed = parse_request_head(head);
  if (!parsed) {
    if ((parsed.error().status != 400 && parsed.error().status != 505) || parsed.error().reason.empty()) {
      __builtin_trap();
    }
    return 0;
  }
  const RequestHead& request = parsed.value();
  if (!head_size || request.method.empty() || !request.target.starts_with(request.path) ||
      (request.minor_version != 0 && request.minor_version != 1) || request.path.empty()) {
    __builtin_trap();
  }
  return 0;
}
