#pragma once

// What the tests of every system function start from: the function's logger and IPC endpoint as
// recording fakes, a fake host, and a real configuration database file in a sandbox root.

#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/schema.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/cfgdb/store.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"
#include "xpon/test/fake_host.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/sandbox.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace xpon::system_mgr {

/// An endpoint whose n-th event (counted from 1) fails to be sent with Error::CommonError "send failed".
class FailingNthEventIpc : public xpon::test::RecordingIpc {
 public:
  explicit FailingNthEventIpc(std::size_t failing) : failing_(failing) {}
  core::Result<void> send_event(const ipc::Event& event) override {
    if (++attempts_ == failing_) {
      return core::ErrorPayload(core::Error::CommonError, "send failed");
    }
    return RecordingIpc::send_event(event);
  }

 private:
  std::size_t failing_;
  std::size_t attempts_ = 0;
};

/// A function whose polling thread a test can wake, so that it can end the thread even when
/// stop's own wake-up falls into a poll (and is lost, as designed).
template <typename Function>
class Wakeable : public Function {
 public:
  using Function::Function;
  using SysFunction::wake_polling_thread;
};

/// Stops a running function, waking its polling thread until stop has returned; stop's result.
template <typename Function>
Result<void> stop_waking(Wakeable<Function>& function) {
  auto stopped = std::async(std::launch::async, [&] { return function.stop(); });
  while (stopped.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready) {
    function.wake_polling_thread();
  }
  return stopped.get();
}

class FunctionTest : public ::testing::Test {
 protected:
  /// Stores the values of a section's fields, in their declared order, as a configuration writer would.
  void store_section(const cfgdb::SectionRef& section, const std::vector<std::optional<std::uint32_t>>& values) {
    auto store = cfgdb::Store::open(database_file);
    ASSERT_TRUE(store);
    const auto* declared = cfgdb::find_section(section.id);
    ASSERT_NE(declared, nullptr);
    const std::vector<cfgdb::SectionChange> changes{cfgdb::SectionChange{declared, values}};
    ASSERT_TRUE(store.value()->change(changes));
  }

  /// Puts `value` straight into the database file as a field's stored text, bypassing every check,
  /// as a damaged database would hold it (a getter refuses an out-of-range value with EINVAL).
  void store_raw_field(const cfgdb::SectionRef& section, const std::string& field, const std::string& value) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(database_file.c_str(), &db), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "UPDATE field SET value = ?1 WHERE section_id = ?2 AND name = ?3", -1, &statement,
                                 nullptr),
              SQLITE_OK);
    sqlite3_bind_text(statement, 1, value.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(statement, 2, section.id);
    sqlite3_bind_text(statement, 3, field.c_str(), -1, SQLITE_TRANSIENT);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE) << sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    EXPECT_EQ(sqlite3_changes(db), 1);
    sqlite3_close(db);
  }

  /// The one alarm event sent so far, checked for its header words.
  [[nodiscard]] ipc::Payload only_alarm() const {
    const auto events = ipc->events();
    EXPECT_EQ(events.size(), 1U);
    if (events.empty()) {
      return {};
    }
    EXPECT_EQ(events.back().address, 0x0000FFFEU);
    EXPECT_EQ(events.back().group, 9000);
    EXPECT_EQ(events.back().id, 9005);
    return events.back().payload;
  }

  /// The address and reply tag of the requests request_to makes.
  static constexpr ipc::Address kRequestSender = ipc::make_address(0x0042);
  static constexpr std::uint16_t kRequestTag = 0x2468;

  /// A request of the daemon's module with this id and payload, from kRequestSender waiting for an answer.
  static ipc::Request request_to(std::uint16_t id, ipc::Payload payload = {}) {
    ipc::Request request;
    request.payload = std::move(payload);
    request.group = IPC_SYSTEM_MGR;
    request.id = id;
    request.reply_to = ipc::ReplyTo{kRequestSender, kRequestTag};
    return request;
  }

  /// The alarm events sent so far, each checked for its header words.
  [[nodiscard]] std::vector<ipc::Payload> alarms() const {
    std::vector<ipc::Payload> payloads;
    for (const auto& event : ipc->events()) {
      EXPECT_EQ(event.address, 0x0000FFFEU);
      EXPECT_EQ(event.group, 9000);
      EXPECT_EQ(event.id, 9005);
      payloads.push_back(event.payload);
    }
    return payloads;
  }

  /// The one response sent so far, checked for the address it went to, its address word and its tag.
  [[nodiscard]] ipc::Response only_response(ipc::Address sender, std::uint16_t tag) const {
    const auto responses = ipc->responses();
    EXPECT_EQ(responses.size(), 1U);
    if (responses.empty()) {
      return {};
    }
    EXPECT_EQ(responses.back().address, sender);
    EXPECT_EQ(responses.back().response.address, 0x0000FFFEU);
    EXPECT_EQ(responses.back().response.reply_tag, tag);
    return responses.back().response;
  }

  /// A 305-byte alarm record as a function fills it: state, kind, instance, the first value and the text.
  static ipc::Payload alarm_record(std::uint8_t state, std::uint32_t kind, std::uint32_t instance, std::uint32_t value,
                                   const std::string& text) {
    ipc::Payload bytes(305, 0);
    for (std::size_t b = 0; b < 4; ++b) {
      bytes[9 + b] = static_cast<std::uint8_t>((kind >> (8 * b)) & 0xFFU);
      bytes[17 + b] = static_cast<std::uint8_t>((instance >> (8 * b)) & 0xFFU);
      bytes[33 + b] = static_cast<std::uint8_t>((value >> (8 * b)) & 0xFFU);
    }
    bytes[8] = state;
    std::copy(text.begin(), text.end(), bytes.begin() + 45);
    return bytes;
  }

  /// A request of this daemon (module word IPC_SYSTEM_MGR) whose sender waits for the answer.
  static ipc::Request daemon_request(std::uint16_t id, ipc::Payload payload, ipc::Address sender, std::uint16_t tag) {
    ipc::Request request;
    request.payload = std::move(payload);
    request.group = IPC_SYSTEM_MGR;
    request.id = id;
    request.reply_to = ipc::ReplyTo{sender, tag};
    return request;
  }

  /// The payloads of the alarm events sent so far, in order.
  [[nodiscard]] std::vector<ipc::Payload> alarm_payloads() const {
    std::vector<ipc::Payload> payloads;
    for (const auto& event : ipc->events()) {
      if (event.group == 9000 && event.id == 9005) {
        EXPECT_EQ(event.address, 0x0000FFFEU);
        payloads.push_back(event.payload);
      }
    }
    return payloads;
  }

  /// Expects `make` to throw std::runtime_error with exactly `text`.
  template <typename Make>
  static void expect_construction_failure(Make make, const std::string& text) {
    try {
      make();
      ADD_FAILURE() << "constructed";
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(std::string(error.what()), text);
    }
  }

  /// Expects `result` to be that of a configuration change whose section could not be re-read:
  /// Error::ErrorCApi, the getter's refusal (EINVAL) logged once at level 4, and none of
  /// `success_texts` logged (the change's later records are not looked at).
  void expect_failed_reread(const Result<void>& result, const std::vector<std::string>& success_texts) const {
    ASSERT_TRUE(result.has_error());
    EXPECT_EQ(result.error().error, core::Error::ErrorCApi);
    const std::string refused = "C API function returned -1, errno=" + std::to_string(EINVAL);
    const auto texts = logger->texts();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), refused), 1);
    EXPECT_TRUE(logger->contains(refused, 4));
    for (const auto& text : success_texts) {
      EXPECT_FALSE(logger->contains(text)) << text;
    }
  }

  /// The text of a 305-byte alarm record.
  static std::string text_of(const ipc::Payload& payload) {
    return {reinterpret_cast<const char*>(payload.data() + 45)};
  }

  xpon::test::Sandbox sandbox;
  std::string database_file = sandbox.path("/var/lib/xpon/cfgdb.sqlite3");
  std::shared_ptr<xpon::test::RecordingLogger> logger = std::make_shared<xpon::test::RecordingLogger>();
  std::shared_ptr<xpon::test::RecordingIpc> ipc = std::make_shared<xpon::test::RecordingIpc>();
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb = std::make_shared<cfgdb::CfgDbWrapper>("TEST_CFGDB", database_file);
  std::shared_ptr<xpon::test::FakeHost> host = std::make_shared<xpon::test::FakeHost>();
};

}  // namespace xpon::system_mgr
