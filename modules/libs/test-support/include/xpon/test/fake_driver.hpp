#pragma once

#include "xpon/board/driver_abi.h"
#include "xpon/board/posix_wrapper.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace xpon::test {

/// A board driver's behaviour in memory: answers each command from a reply set by the test and records
/// every call. Tests share it with the FakeDriver they hand over, so it outlives a board whose
/// construction failed and took the wrapper down with it.
class FakeDriverState {
 public:
  /// One ioctl as the board object issued it: the request and the argument's bytes on entry.
  struct Call {
    unsigned long request;
    std::vector<std::uint8_t> argument;
  };

  int ioctl(unsigned long request, void* argument) {
    const std::size_t size = _IOC_SIZE(request);
    const auto* bytes = static_cast<const std::uint8_t*>(argument);
    calls.push_back(Call{request, std::vector<std::uint8_t>(bytes, bytes + size)});
    if (lost != 0) {
      errno = lost;
      return -1;
    }
    if (const auto thrown = throws.find(request); thrown != throws.end()) {
      thrown->second();
    }
    if (const auto failure = failures.find(request); failure != failures.end()) {
      errno = failure->second;
      return -1;
    }
    if (const auto reply = replies.find(request); reply != replies.end()) {
      reply->second(argument);
    }
    return 0;
  }

  /// Answers `request` by writing `value` over its argument.
  template <typename T>
  void reply(unsigned long request, const T& value) {
    replies[request] = [value](void* argument) { std::memcpy(argument, &value, sizeof value); };
  }

  /// Answers `request` with a function of the argument, which it may read and fill.
  template <typename T>
  void reply_with(unsigned long request, std::function<void(T&)> fill) {
    replies[request] = [fill](void* argument) {
      T record;
      std::memcpy(&record, argument, sizeof record);
      fill(record);
      std::memcpy(argument, &record, sizeof record);
    };
  }

  /// Opens the device again: fails with ENOENT while it is away; otherwise the calls work again.
  int reopen() {
    ++reopens;
    if (!present) {
      errno = ENOENT;
      return -1;
    }
    lost = 0;
    return 0;
  }

  /// Takes the device away: every call on the descriptor fails with this errno until a reopen
  /// after bring_back.
  void take_away(int error_number) {
    lost = error_number;
    present = false;
  }

  /// Puts the device back; the lost descriptor keeps failing until the board reopens it.
  void bring_back() { present = true; }

  /// Makes `request` fail with ioctl's -1 and this errno.
  void fail(unsigned long request, int error_number) { failures[request] = error_number; }

  /// Answers the six inventory commands with these values.
  void inventory(std::uint8_t cpld, std::uint8_t fans, std::uint8_t supplies, std::uint8_t sensors,
                 std::uint8_t pon_ports, std::uint8_t front_ports) {
    reply(BOARD_GET_CPLD_VERSION, cpld);
    reply(BOARD_GET_FAN_COUNT, fans);
    reply(BOARD_GET_PS_COUNT, supplies);
    reply(BOARD_GET_TEMP_COUNT, sensors);
    reply(BOARD_GET_PON_PORT_COUNT, pon_ports);
    reply(BOARD_GET_FRONT_PORT_COUNT, front_ports);
  }

  /// The requests issued so far, in order.
  [[nodiscard]] std::vector<unsigned long> requests() const {
    std::vector<unsigned long> result;
    result.reserve(calls.size());
    for (const auto& call : calls) {
      result.push_back(call.request);
    }
    return result;
  }

  std::vector<Call> calls;
  std::map<unsigned long, std::function<void(void*)>> replies;
  std::map<unsigned long, int> failures;
  std::map<unsigned long, std::function<void()>> throws;
  /// The errno of every call on a lost descriptor; 0 while the descriptor works.
  int lost = 0;
  /// Whether a reopen finds the device.
  bool present = true;
  /// The reopens asked for so far.
  int reopens = 0;
};

/// The wrapper handed to the board object; all it does is forward to the shared state.
class FakeDriver : public board::IPosixWrapper {
 public:
  explicit FakeDriver(std::shared_ptr<FakeDriverState> state = std::make_shared<FakeDriverState>())
      : state_(std::move(state)) {}

  int ioctl(unsigned long request, void* argument) override { return state_->ioctl(request, argument); }

  int reopen() override { return state_->reopen(); }

  /// The behaviour and the journal of this driver.
  [[nodiscard]] const std::shared_ptr<FakeDriverState>& state() const { return state_; }

 private:
  std::shared_ptr<FakeDriverState> state_;
};

/// Copies a record's bytes, for comparing what the driver received.
template <typename T>
std::vector<std::uint8_t> bytes_of(const T& record) {
  const auto* begin = reinterpret_cast<const std::uint8_t*>(&record);
  return {begin, begin + sizeof record};
}

}  // namespace xpon::test
