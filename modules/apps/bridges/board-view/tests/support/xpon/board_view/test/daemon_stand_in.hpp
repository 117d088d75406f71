#pragma once

// A stand-in for the system manager on the bus, for the tests of the board view and of the
// bridges built on it: answers requests from a table and hands events to the subscribed handlers;
// and the records the daemon sends, as bytes.

#include "xpon/board/driver_abi.h"
#include "xpon/ipc/ipc.hpp"
#include "xpon/system_mgr/api.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace xpon::board_view::test {

using Asked = std::pair<std::uint16_t, std::optional<std::uint32_t>>;

// Answers requests from a table (no entry: no answer, at once) and hands events to the handlers
// subscribed for them.
class DaemonStandIn : public ipc::IIpc {
 public:
  void answer(std::uint16_t id, ipc::Payload payload, std::optional<std::uint32_t> port = std::nullopt) {
    std::lock_guard lock(mutex_);
    ipc::Response response;
    response.result = system_mgr::SYSTEM_MGR_RESULT_ANSWERED;
    response.payload = std::move(payload);
    answers_[{id, port}] = std::move(response);
  }

  void go_silent() {
    std::lock_guard lock(mutex_);
    answers_.clear();
  }

  std::vector<Asked> asked() const {
    std::lock_guard lock(mutex_);
    return asked_;
  }

  bool publish(const ipc::Event& event) {
    ipc::EventHandler handler;
    {
      std::lock_guard lock(mutex_);
      const auto found = handlers_.find({event.group, event.id});
      if (found == handlers_.end()) {
        return false;
      }
      handler = found->second;
    }
    (void)handler(event);
    return true;
  }

  std::size_t subscriptions() const {
    std::lock_guard lock(mutex_);
    return handlers_.size();
  }

  core::Result<void> subscribe_request(ipc::Key /*key*/, ipc::RequestHandler /*handler*/) override {
    return core::ErrorPayload(core::Error::NotImplemented);
  }
  core::Result<void> unsubscribe_request(ipc::Key /*key*/) override {
    return core::ErrorPayload(core::Error::NotImplemented);
  }
  core::Result<void> subscribe_event(ipc::Key key, ipc::EventHandler handler) override {
    std::lock_guard lock(mutex_);
    handlers_[key] = std::move(handler);
    return core::success();
  }
  core::Result<void> unsubscribe_event(ipc::Key key) override {
    std::lock_guard lock(mutex_);
    return handlers_.erase(key) == 1 ? core::success() : core::Result<void>(core::ErrorPayload(core::Error::Empty));
  }
  core::Result<void> send_response(ipc::Address /*address*/, const ipc::Response& /*response*/) override {
    return core::ErrorPayload(core::Error::NotImplemented);
  }
  core::Result<void> send_event(const ipc::Event& /*event*/) override {
    return core::ErrorPayload(core::Error::NotImplemented);
  }
  core::Result<void> connect(ipc::Address /*address*/) override { return core::success(); }
  core::Result<ipc::Response> request(ipc::Address address, ipc::Request request,
                                      std::chrono::milliseconds /*timeout*/) override {
    std::optional<std::uint32_t> port;
    if (request.payload.size() == 4) {
      std::uint32_t value = 0;
      std::memcpy(&value, request.payload.data(), 4);
      port = value;
    }
    std::lock_guard lock(mutex_);
    asked_.emplace_back(request.id, port);
    if (address != system_mgr::SYSTEM_MGR_IPC_ADDRESS || request.group != system_mgr::IPC_SYSTEM_MGR) {
      return core::ErrorPayload(core::Error::InvalidState);
    }
    const auto found = answers_.find({request.id, port});
    if (found == answers_.end()) {
      return core::ErrorPayload(core::Error::InvalidState, "no answer");
    }
    return found->second;
  }
  [[nodiscard]] ipc::Address address() const override { return ipc::make_address(0x0043); }

 private:
  mutable std::mutex mutex_;
  std::map<std::pair<std::uint16_t, std::optional<std::uint32_t>>, ipc::Response> answers_;
  std::map<ipc::Key, ipc::EventHandler> handlers_;
  std::vector<Asked> asked_;
};

/// The bytes of a packed record, as the daemon sends it.
template <typename Record>
ipc::Payload bytes_of(const Record& record) {
  ipc::Payload payload(sizeof(Record));
  std::memcpy(payload.data(), &record, sizeof(Record));
  return payload;
}

/// The bytes of a list of records, one after the other.
template <typename Record>
ipc::Payload bytes_of(const std::vector<Record>& list) {
  ipc::Payload payload;
  for (const auto& record : list) {
    const auto one = bytes_of(record);
    payload.insert(payload.end(), one.begin(), one.end());
  }
  return payload;
}

/// The device factory answer of a board of `family`.
inline ipc::Payload factory_of(std::uint32_t family) {
  system_mgr::System_mgr__factory factory{};
  factory.family = family;
  return bytes_of(factory);
}

/// A module record as the daemon fills it: the driver's selection of identification fields
/// (vendor "XPON-OPTICS", part number "GP-SFP-C", revision "A", 1490 nm).
inline system_mgr::SfpModuleRecord module_record(std::uint32_t port, std::string_view serial, std::uint8_t state = 1) {
  system_mgr::SfpModuleRecord record{};
  record.port = port;
  record.state = state;
  const auto put = [&](std::size_t offset, std::size_t length, std::string_view text) {
    std::memset(record.data + offset, ' ', length);
    std::copy_n(text.begin(), std::min(length, text.size()), record.data + offset);
  };
  put(BRD_SFP_ID_VENDOR_NAME, BRD_SFP_ID_TEXT_LENGTH, "XPON-OPTICS");
  put(BRD_SFP_ID_PART_NUMBER, BRD_SFP_ID_TEXT_LENGTH, "GP-SFP-C");
  put(BRD_SFP_ID_REVISION, BRD_SFP_ID_REVISION_LENGTH, "A");
  put(BRD_SFP_ID_SERIAL, BRD_SFP_ID_TEXT_LENGTH, serial);
  record.data[BRD_SFP_ID_WAVELENGTH] = 0x05;  // 1490 nm, big-endian
  record.data[BRD_SFP_ID_WAVELENGTH + 1] = 0xD2;
  return record;
}

/// The daemon's alarm event: one alarm record in state `state` (raised or back to normal).
inline ipc::Event alarm_event(std::uint8_t state, std::uint32_t alarm_id, std::uint32_t instance,
                              std::string_view text = {}) {
  system_mgr::Alarm record{};
  record.state = state;
  record.alarm_id = alarm_id;
  record.instance = instance;
  // std::copy_n, not memcpy: an empty view may have no data pointer at all.
  std::copy_n(text.begin(), std::min(text.size(), sizeof(record.text) - 1), record.text);
  ipc::Event event;
  event.group = system_mgr::IPC_EVENT_ALARM_GROUP;
  event.id = system_mgr::IPC_EVENT_ALARM_ID;
  event.payload = bytes_of(record);
  return event;
}

}  // namespace xpon::board_view::test
