#include "xpon/system_mgr/functions/sfp_monitoring.hpp"

#include "function_test.hpp"
#include "xpon/test/fake_board.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;
using test::BoardOp;

constexpr ipc::Address kSender = ipc::make_address(0x0042);
constexpr std::uint16_t kTag = 0x2468;

// The function with its family set by the test: the class itself never changes it.
class FamilySfpMonitoring : public Wakeable<SfpMonitoring> {
 public:
  using Wakeable<SfpMonitoring>::Wakeable;
  void set_family(DeviceFamily family) { device_family_ = family; }
};

ipc::Payload u32(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8U),
          static_cast<std::uint8_t>(value >> 16U), static_cast<std::uint8_t>(value >> 24U)};
}

// Identification data whose every byte tells its own offset in the driver's record (4 to 63).
Brd__sfp_data data_for(std::uint32_t port) {
  Brd__sfp_data data;
  data.port = port;
  for (std::size_t i = 0; i < sizeof data.data; ++i) {
    data.data[i] = static_cast<std::uint8_t>(4 + i + port);
  }
  return data;
}

// The 64 bytes of the record of a module first seen with this state byte and data_for(port).
ipc::Payload record_bytes(std::uint32_t port, std::uint8_t state) {
  ipc::Payload bytes = u32(port);
  bytes.push_back(state);
  const Brd__sfp_data data = data_for(port);
  bytes.insert(bytes.end(), data.data, data.data + 59);
  return bytes;
}

class SfpMonitoringTest : public FunctionTest {
 protected:
  std::unique_ptr<FamilySfpMonitoring> make(const std::shared_ptr<test::RecordingIpc>& endpoint = nullptr,
                                            std::chrono::milliseconds period = 1000ms) {
    return std::make_unique<FamilySfpMonitoring>(logger, endpoint ? endpoint : ipc, board, period);
  }

  static BoardOp state_op(bool p_port) {
    return p_port ? BoardOp::get_p_port_sfp_state : BoardOp::get_f_port_sfp_state;
  }
  static BoardOp data_op(bool p_port) { return p_port ? BoardOp::get_p_port_sfp_data : BoardOp::get_f_port_sfp_data; }

  void plug(bool p_port, std::uint32_t port, std::uint8_t state = 0x11) {
    board->answer_port(state_op(p_port), port, Brd__sfp_state{port, 1, 0, state, 0});
    board->answer_port(data_op(p_port), port, data_for(port));
  }

  void unplug(bool p_port, std::uint32_t port) {
    board->answer_port(state_op(p_port), port, Brd__sfp_state{port, 0, 0, 0, 0});
  }

  static ipc::Request request(std::uint16_t id, ipc::Payload payload = {}) {
    ipc::Request req;
    req.payload = std::move(payload);
    req.group = IPC_SYSTEM_MGR;
    req.id = id;
    req.reply_to = ipc::ReplyTo{kSender, kTag};
    return req;
  }

  static ipc::Request without_reply(ipc::Request req) {
    req.reply_to.reset();
    return req;
  }

  // The events sent so far, each checked for its address and module words.
  [[nodiscard]] std::vector<ipc::Event> events(const test::RecordingIpc& endpoint) const {
    auto sent = endpoint.events();
    for (const auto& event : sent) {
      EXPECT_EQ(event.address, 0x0000FFFEU);
      EXPECT_EQ(event.group, IPC_SYSTEM_MGR);
    }
    return sent;
  }
  [[nodiscard]] std::vector<ipc::Event> events() const { return events(*ipc); }

  // The one response sent, checked for its sender, address word, tag and result word.
  [[nodiscard]] ipc::Payload only_answer(std::uint32_t result) const {
    const auto response = only_response(kSender, kTag);
    EXPECT_EQ(response.result, result);
    return response.payload;
  }

  // The request's result, which must be an error, and its code.
  static Error error_of(const core::Result<void>& result) {
    EXPECT_FALSE(result);
    return result ? Error::NoError : result.error().error;
  }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

// --- Construction and the bound variants ----------------------------------------------------

TEST_F(SfpMonitoringTest, ConstructionLogsAndKeepsTheLtFamily) {
  {
    auto function = make();
    EXPECT_EQ(function->name(), "SfpMonitoring");
    EXPECT_EQ(function->period(), 1000ms);
    EXPECT_EQ(function->device_family(), DeviceFamily::LT);
    EXPECT_TRUE(logger->contains("SfpMonitoring create successfully", 0));
    EXPECT_TRUE(board->calls().empty()) << "construction asks nothing of the board";
  }
  EXPECT_TRUE(logger->contains("SfpMonitoring destroy successfully", 0));
}

TEST_F(SfpMonitoringTest, SubscribesTheElevenRequests) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(ipc->subscribe_calls(), 11U);
  std::vector<ipc::Key> expected;
  for (std::uint16_t id = 15516; id <= 15526; ++id) {
    expected.push_back(ipc::Key{IPC_SYSTEM_MGR, id});
  }
  EXPECT_EQ(ipc->request_subscriptions(), expected);
  ASSERT_TRUE(function->ipc_unsubscribe());
  EXPECT_EQ(ipc->unsubscribe_calls(), 11U);
  EXPECT_TRUE(ipc->request_subscriptions().empty());
}

TEST_F(SfpMonitoringTest, LcVariantSubscribesTheSixPPortRequests) {
  auto function = make();
  ASSERT_TRUE(function->lc_ipc_subscribe());
  std::vector<ipc::Key> expected;
  for (const int id : {15516, 15518, 15520, 15521, 15523, 15525}) {
    expected.push_back(ipc::Key{IPC_SYSTEM_MGR, static_cast<std::uint16_t>(id)});
  }
  EXPECT_EQ(ipc->request_subscriptions(), expected);
  ASSERT_TRUE(function->lc_ipc_unsubscribe());
  EXPECT_EQ(ipc->unsubscribe_calls(), 6U);
  EXPECT_TRUE(ipc->request_subscriptions().empty());
}

TEST_F(SfpMonitoringTest, FcVariantSubscribesTheFiveFPortRequests) {
  auto function = make();
  ASSERT_TRUE(function->fc_ipc_subscribe());
  std::vector<ipc::Key> expected;
  for (const int id : {15517, 15519, 15522, 15524, 15526}) {
    expected.push_back(ipc::Key{IPC_SYSTEM_MGR, static_cast<std::uint16_t>(id)});
  }
  EXPECT_EQ(ipc->request_subscriptions(), expected);
  ASSERT_TRUE(function->fc_ipc_unsubscribe());
  EXPECT_EQ(ipc->unsubscribe_calls(), 5U);
  EXPECT_TRUE(ipc->request_subscriptions().empty());
}

TEST_F(SfpMonitoringTest, PollWalksSixteenPPortsThenEightFPorts) {
  auto function = make();
  ASSERT_TRUE(function->polling());
  const auto calls = board->calls();
  ASSERT_EQ(calls.size(), 24U);
  for (std::uint32_t i = 0; i < 24; ++i) {
    const bool p_port = i < 16;
    EXPECT_EQ(calls[i].op, state_op(p_port));
    EXPECT_EQ(std::get<Brd__sfp_state>(calls[i].argument).port, p_port ? i : i - 16);
  }
  EXPECT_TRUE(events().empty());
}

TEST_F(SfpMonitoringTest, LcPollingWalksThePPortsOnly) {
  auto function = make();
  plug(false, 1);
  ASSERT_TRUE(function->lc_polling());
  EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_state), 16U);
  EXPECT_EQ(board->count(BoardOp::get_f_port_sfp_state), 0U);
  EXPECT_TRUE(events().empty());
}

TEST_F(SfpMonitoringTest, FcPollingWalksTheFPortsOnly) {
  auto function = make();
  plug(false, 1);
  ASSERT_TRUE(function->fc_polling());
  EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_state), 0U);
  EXPECT_EQ(board->count(BoardOp::get_f_port_sfp_state), 8U);
  ASSERT_EQ(events().size(), 1U);
  EXPECT_EQ(events()[0].id, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED);
}

// --- Insertion and removal ----------------------------------------------------------------

TEST_F(SfpMonitoringTest, ModuleInsertedAtPPortThreeGivesOneEventWithItsRecord) {
  auto function = make();
  plug(true, 3, 0x5C);
  ASSERT_TRUE(function->polling());
  const auto sent = events();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].id, 15539);
  ASSERT_EQ(sent[0].payload.size(), 64U);
  EXPECT_EQ(ipc::Payload(sent[0].payload.begin(), sent[0].payload.begin() + 4), u32(3));
  EXPECT_EQ(sent[0].payload, record_bytes(3, 0x5C));
  // The data read names its port and comes in zeroed.
  const auto reads = board->arguments<Brd__sfp_data>(BoardOp::get_p_port_sfp_data);
  ASSERT_EQ(reads.size(), 1U);
  Brd__sfp_data expected{};
  expected.port = 3;
  EXPECT_EQ(std::memcmp(&reads[0], &expected, sizeof expected), 0);
}

TEST_F(SfpMonitoringTest, ModuleRemovedFromPPortThreeGivesOneEventWithThePort) {
  auto function = make();
  plug(true, 3);
  ASSERT_TRUE(function->polling());
  ipc->clear_sent();
  unplug(true, 3);
  ASSERT_TRUE(function->polling());
  const auto sent = events();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].id, 15540);
  EXPECT_EQ(sent[0].payload, u32(3));
  EXPECT_TRUE(function->modules(true).empty());
}

TEST_F(SfpMonitoringTest, FPortModulesUseTheirOwnEvents) {
  auto function = make();
  plug(false, 7, 0x22);
  ASSERT_TRUE(function->polling());
  unplug(false, 7);
  ASSERT_TRUE(function->polling());
  const auto sent = events();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].id, 15541);
  EXPECT_EQ(sent[0].payload, record_bytes(7, 0x22));
  EXPECT_EQ(sent[1].id, 15542);
  EXPECT_EQ(sent[1].payload, u32(7));
}

TEST_F(SfpMonitoringTest, KnownModuleIsNotReportedAgainNorReadAgain) {
  auto function = make();
  plug(true, 0);
  ASSERT_TRUE(function->polling());
  ASSERT_TRUE(function->polling());
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(events().size(), 1U);
  EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_data), 1U);
}

TEST_F(SfpMonitoringTest, ModulesAreReportedInPortOrderPPortsFirst) {
  auto function = make();
  plug(false, 0);
  plug(true, 15);
  plug(true, 2);
  ASSERT_TRUE(function->polling());
  const auto sent = events();
  ASSERT_EQ(sent.size(), 3U);
  EXPECT_EQ(sent[0].payload, record_bytes(2, 0x11));
  EXPECT_EQ(sent[1].payload, record_bytes(15, 0x11));
  EXPECT_EQ(sent[2].id, 15541);
  EXPECT_EQ(sent[2].payload, record_bytes(0, 0x11));
}

TEST_F(SfpMonitoringTest, DataReadFailureGivesNoEventNoRecordUntilALaterReadSucceeds) {
  auto function = make();
  plug(true, 4);
  board->fail(BoardOp::get_p_port_sfp_data, Error::ErrorCApi, {}, test::FakeBoard::Times::once);
  logger->clear();
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(events().empty());
  EXPECT_TRUE(function->modules(true).empty());
  EXPECT_TRUE(logger->texts().empty()) << "a failed read is skipped silently";
  ASSERT_TRUE(function->polling());
  ASSERT_EQ(events().size(), 1U);
  EXPECT_EQ(events()[0].payload, record_bytes(4, 0x11));
}

TEST_F(SfpMonitoringTest, ModuleWhoseDataReadKeepsFailingIsNeverReported) {
  auto function = make();
  plug(true, 4);
  board->fail(BoardOp::get_p_port_sfp_data, Error::ErrorCApi);
  for (int poll = 0; poll < 5; ++poll) {
    ASSERT_TRUE(function->polling());
  }
  EXPECT_TRUE(events().empty());
  EXPECT_TRUE(function->modules(true).empty());
  EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_data), 5U);
}

TEST_F(SfpMonitoringTest, StateReadFailureSkipsThePortSilently) {
  auto function = make();
  plug(true, 1);
  ASSERT_TRUE(function->polling());
  ipc->clear_sent();
  board->fail(BoardOp::get_p_port_sfp_state, Error::ErrorCApi);
  logger->clear();
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(events().empty()) << "an unreadable cage is not taken for an empty one";
  EXPECT_EQ(function->modules(true).size(), 1U);
  EXPECT_TRUE(logger->texts().empty());
  EXPECT_EQ(board->count(BoardOp::get_f_port_sfp_state), 16U) << "the F-ports are still walked";
}

TEST_F(SfpMonitoringTest, ThrowingStateReadIsLoggedAndSkipped) {
  auto function = make();
  board->throw_exception(BoardOp::get_p_port_sfp_state, "driver gone", test::FakeBoard::Times::once);
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(logger->contains("An std::exception was thrown: driver gone ", 4));
  EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_state), 16U);
}

TEST_F(SfpMonitoringTest, StateChangeOfAKnownModuleUpdatesTheRecordSilently) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 6, 0x01);
  ASSERT_TRUE(function->polling());
  ipc->clear_sent();
  board->answer_port(BoardOp::get_p_port_sfp_state, 6, Brd__sfp_state{6, 1, 1, 0x02, 1});
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(events().empty());
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO)));
  EXPECT_EQ(only_answer(1), record_bytes(6, 0x02));
}

TEST_F(SfpMonitoringTest, RemovalOfTheLastModuleEmptiesTheGroup) {
  auto function = make();
  plug(true, 9);
  plug(true, 10);
  ASSERT_TRUE(function->polling());
  unplug(true, 9);
  ASSERT_TRUE(function->polling());
  unplug(true, 10);
  ipc->clear_sent();
  ASSERT_TRUE(function->polling());
  ASSERT_EQ(events().size(), 1U);
  EXPECT_EQ(events()[0].id, 15540);
  EXPECT_EQ(events()[0].payload, u32(10));
  EXPECT_TRUE(function->modules(true).empty());
  ipc->clear_sent();
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(events().empty());
}

TEST_F(SfpMonitoringTest, FailedInsertionSendEndsThePollAndIsNotRepeated) {
  auto failing = std::make_shared<FailingNthEventIpc>(2);
  auto function = make(failing);
  plug(true, 1);
  plug(true, 2);
  plug(true, 3);
  plug(false, 0);
  const auto polled = function->polling();
  EXPECT_EQ(error_of(polled), Error::CommonError);
  ASSERT_EQ(events(*failing).size(), 1U);
  EXPECT_EQ(function->modules(true).size(), 2U) << "the record whose event failed stays";
  EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_state), 3U) << "the poll ended at port 2";
  EXPECT_EQ(board->count(BoardOp::get_f_port_sfp_state), 0U) << "the F-ports wait for the next poll";
  EXPECT_TRUE(logger->contains("Error: CommonError. Message: send failed.", 4));

  ASSERT_TRUE(function->polling());
  const auto sent = events(*failing);
  ASSERT_EQ(sent.size(), 3U);
  EXPECT_EQ(sent[0].payload, record_bytes(1, 0x11));
  EXPECT_EQ(sent[1].payload, record_bytes(3, 0x11));
  EXPECT_EQ(sent[2].id, 15541);
}

TEST_F(SfpMonitoringTest, FailedRemovalSendEndsThePollAndTheEntryIsGone) {
  auto failing = std::make_shared<FailingNthEventIpc>(2);
  auto function = make(failing);
  plug(true, 5);
  ASSERT_TRUE(function->polling());
  unplug(true, 5);
  EXPECT_EQ(error_of(function->polling()), Error::CommonError);
  EXPECT_TRUE(function->modules(true).empty());
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(events(*failing).size(), 1U) << "the removal is not reported again";
}

TEST_F(SfpMonitoringTest, PollsOnItsThreadUntilStopped) {
  auto function = make(nullptr, 10ms);
  ASSERT_TRUE(function->run());
  plug(true, 8);
  ASSERT_TRUE(ipc->wait_for_events(1, 5s));
  unplug(true, 8);
  ASSERT_TRUE(ipc->wait_for_events(2, 5s));
  EXPECT_TRUE(stop_waking(*function));
  const auto sent = events();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].id, 15539);
  EXPECT_EQ(sent[1].id, 15540);
}

TEST_F(SfpMonitoringTest, RequestsRaceThePollingThreadSafely) {
  auto function = make(nullptr, 1ms);
  ASSERT_TRUE(function->run());
  for (int round = 0; round < 50; ++round) {
    if (round % 2 == 0) {
      plug(true, 1);
    } else {
      unplug(true, 1);
    }
    static_cast<void>(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO)));
    static_cast<void>(ipc->inject_request(request(IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT)));
    static_cast<void>(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, u32(1))));
  }
  EXPECT_TRUE(stop_waking(*function));
  EXPECT_EQ(ipc->responses().size(), 150U);
}

// --- Total info -----------------------------------------------------------------------------

TEST_F(SfpMonitoringTest, TotalInfoOfAnEmptyGroupIsAnEmptyAnswer) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  logger->clear();
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO)));
  EXPECT_TRUE(only_answer(1).empty());
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO]"}));
}

TEST_F(SfpMonitoringTest, TotalInfoIsSixtyFourBytesPerModule) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 0, 0x01);
  plug(true, 12, 0x02);
  plug(false, 3);
  ASSERT_TRUE(function->polling());
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, ipc::Payload(4096, 0xEE))));
  const auto payload = only_answer(1);
  ASSERT_EQ(payload.size(), 128U);
  const ipc::Payload first(payload.begin(), payload.begin() + 64);
  const ipc::Payload second(payload.begin() + 64, payload.end());
  // The map's own order: either module may come first.
  EXPECT_TRUE((first == record_bytes(0, 0x01) && second == record_bytes(12, 0x02)) ||
              (first == record_bytes(12, 0x02) && second == record_bytes(0, 0x01)));
}

TEST_F(SfpMonitoringTest, TotalInfoWithoutReplyInformationEndsInAnException) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(without_reply(request(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO)))),
            Error::Exception);
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_TRUE(logger->contains("An std::exception was thrown: bad optional access ", 4));
}

// --- Inject -------------------------------------------------------------------------------

TEST_F(SfpMonitoringTest, InjectRepublishesTheGroupsInsertionsThenAnswers) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(false, 2, 0x33);
  plug(true, 1);
  ASSERT_TRUE(function->polling());
  ipc->clear_sent();
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT, {1, 2})));
  const auto sent = events();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].id, 15541);
  EXPECT_EQ(sent[0].payload, record_bytes(2, 0x33));
  EXPECT_TRUE(only_answer(1).empty());
}

TEST_F(SfpMonitoringTest, InjectWithoutModulesOnlyAnswers) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT)));
  EXPECT_TRUE(events().empty());
  EXPECT_TRUE(only_answer(1).empty());
}

TEST_F(SfpMonitoringTest, InjectWithoutReplyInformationSendsTheEventsAndEndsInAnException) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 1);
  ASSERT_TRUE(function->polling());
  ipc->clear_sent();
  const auto handled =
      ipc->inject_request(without_reply(request(IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT)));
  EXPECT_EQ(error_of(handled), Error::Exception);
  EXPECT_EQ(events().size(), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(SfpMonitoringTest, InjectStopsAtTheFirstFailedEventAndDoesNotAnswer) {
  auto failing = std::make_shared<FailingNthEventIpc>(3);
  auto function = make(failing);
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 1);
  plug(true, 2);
  ASSERT_TRUE(function->polling());
  const auto handled = failing->inject_request(request(IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT));
  EXPECT_EQ(error_of(handled), Error::CommonError);
  EXPECT_EQ(events(*failing).size(), 2U);
  EXPECT_TRUE(failing->responses().empty());
}

// --- EDDI -------------------------------------------------------------------------------------

Brd__sfp_eddi_data example_eddi(std::uint32_t port) {
  Brd__sfp_eddi_data eddi{};
  eddi.port = port;
  const std::uint16_t words[16] = {0xAAAA, 0xBBBB, 0x2800, 0x0100, 0,      33000, 0x0100, 0,
                                   3000,   0x0100, 0,      10000,  0x0100, 0,     0xCCCC, 0xDDDD};
  std::memcpy(eddi.data, words, sizeof words);
  return eddi;
}

// Port 5, valid, 40 degC, 3300000 uV, 6 mA, 1 mW, then 96 zero bytes.
ipc::Payload example_eddi_answer() {
  ipc::Payload bytes = u32(5);
  bytes.push_back(1);
  const ipc::Payload values = {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x44, 0x40,   // 40.0
                               0x00, 0x00, 0x00, 0x00, 0x50, 0x2D, 0x49, 0x41,   // 3300000.0
                               0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x18, 0x40,   // 6.0
                               0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xF0, 0x3F};  // 1.0
  bytes.insert(bytes.end(), values.begin(), values.end());
  bytes.resize(133, 0);
  return bytes;
}

TEST_F(SfpMonitoringTest, EddiAnswerCarriesTheConvertedValuesAtTheirOffsets) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 5);
  ASSERT_TRUE(function->polling());
  board->answer_port(BoardOp::get_p_port_sfp_eddi_data, 5, example_eddi(5));
  logger->clear();
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, u32(5))));
  const auto payload = only_answer(1);
  ASSERT_EQ(payload.size(), 133U);
  EXPECT_EQ(payload, example_eddi_answer());
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA]"}));
  const auto reads = board->arguments<Brd__sfp_eddi_data>(BoardOp::get_p_port_sfp_eddi_data);
  ASSERT_EQ(reads.size(), 1U);
  Brd__sfp_eddi_data expected{};
  expected.port = 5;
  EXPECT_EQ(std::memcmp(&reads[0], &expected, sizeof expected), 0);
}

TEST_F(SfpMonitoringTest, FPortEddiReadsTheFPortDiagnostics) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(false, 5);
  ASSERT_TRUE(function->polling());
  board->answer_port(BoardOp::get_f_port_sfp_eddi_data, 5, example_eddi(5));
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA, u32(5))));
  EXPECT_EQ(only_answer(1), example_eddi_answer());
  EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_eddi_data), 0U);
}

TEST_F(SfpMonitoringTest, EddiForAPortWithoutAModuleIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, u32(2)))), Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
  EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_eddi_data), 0U);
}

TEST_F(SfpMonitoringTest, EddiForPortAllOnesIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA, u32(0xFFFFFFFF)))),
            Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
}

TEST_F(SfpMonitoringTest, EddiWithAnEmptyPayloadIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA))), Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
}

TEST_F(SfpMonitoringTest, EddiWithThreeBytesIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 0);
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, {0, 0, 0}))),
            Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
}

TEST_F(SfpMonitoringTest, EddiWithAFarTooLongPayloadReadsItsFirstFourBytes) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 5);
  ASSERT_TRUE(function->polling());
  board->answer_port(BoardOp::get_p_port_sfp_eddi_data, 5, example_eddi(5));
  ipc::Payload payload = u32(5);
  payload.resize(65536, 0xFF);
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, payload)));
  EXPECT_EQ(only_answer(1), example_eddi_answer());
}

TEST_F(SfpMonitoringTest, EddiWithoutReplyInformationEndsInAnException) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(without_reply(request(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA)))),
            Error::Exception);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(SfpMonitoringTest, EddiReadFailureIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 5);
  ASSERT_TRUE(function->polling());
  board->fail(BoardOp::get_p_port_sfp_eddi_data, Error::ErrorCApi, "ioctl failed");
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, u32(5)))), Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
  EXPECT_TRUE(logger->contains("Error: ErrorCApi. Message: ioctl failed.", 4));
}

TEST_F(SfpMonitoringTest, EddiOfAllOnesWordsGivesFiniteValues) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 5);
  ASSERT_TRUE(function->polling());
  Brd__sfp_eddi_data garbage;
  std::memset(&garbage, 0xFF, sizeof garbage);
  board->answer_port(BoardOp::get_p_port_sfp_eddi_data, 5, garbage);
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, u32(5))));
  const auto payload = only_answer(1);
  ASSERT_EQ(payload.size(), 133U);
  System_mgr__sfp_eddi_data decoded;
  std::memcpy(&decoded, payload.data(), sizeof decoded);
  // Temperature: raw -1/256 with slope 255.996 and offset -1/256, all in 1/256 degC.
  EXPECT_EQ(decoded.temperature, (-1.0 * 65535.0 / 256.0 - 1.0) / 256.0);
  EXPECT_EQ(decoded.voltage, (65535.0 * 65535.0 / 256.0 - 1.0) * 100.0);
  // Bias in 2 uA units and power in 0.1 uW units of the same fixed-point value, 16776703.00390625.
  EXPECT_TRUE(std::isfinite(decoded.bias_current));
  EXPECT_TRUE(std::isfinite(decoded.optical_power));
  EXPECT_DOUBLE_EQ(decoded.bias_current, 33553.4060078125);
  EXPECT_DOUBLE_EQ(decoded.optical_power, 1677.670300390625);
  EXPECT_EQ(decoded.valid, 1);
  EXPECT_EQ(decoded.port, 5U) << "the port is the requested one, not what the driver wrote";
}

// --- RX power -------------------------------------------------------------------------------

TEST_F(SfpMonitoringTest, RxPowerIsTheCalibrationPolynomialAsEightBytes) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 3);
  ASSERT_TRUE(function->polling());
  board->answer(BoardOp::get_p_port_sfp_rx_power,
                Brd__sfp_rx_power{99, 10, 0xFFFF, {0.5F, 2.0F, 1.0F, 0.125F, 0.0625F}});
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, u32(3))));
  // 0.5 + 2*10 + 100 + 0.125*1000 + 0.0625*10000 = 870.5
  EXPECT_EQ(only_answer(1), (ipc::Payload{0x00, 0x00, 0x00, 0x00, 0x00, 0x34, 0x8B, 0x40}));
  const auto reads = board->arguments<Brd__sfp_rx_power>(BoardOp::get_p_port_sfp_rx_power);
  ASSERT_EQ(reads.size(), 1U);
  // Every byte zero: the port is deliberately not written into the reading.
  std::array<std::uint8_t, sizeof(Brd__sfp_rx_power)> bytes{};
  std::memcpy(bytes.data(), &reads[0], bytes.size());
  EXPECT_EQ(bytes, (std::array<std::uint8_t, sizeof(Brd__sfp_rx_power)>{}));
}

TEST_F(SfpMonitoringTest, RxPowerForAPortWithoutAModuleIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, u32(0xFFFFFFFF)))),
            Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
  EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_rx_power), 0U);
}

TEST_F(SfpMonitoringTest, RxPowerWithAnEmptyPayloadIsAnInvalidArgument) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER))), Error::InvalidInputArg);
  EXPECT_TRUE(only_answer(0).empty());
}

TEST_F(SfpMonitoringTest, RxPowerWithThreeBytesIsAnInvalidArgument) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, {3, 0, 0}))),
            Error::InvalidInputArg);
  EXPECT_TRUE(only_answer(0).empty());
}

TEST_F(SfpMonitoringTest, RxPowerWithAFarTooLongPayloadReadsItsFirstFourBytes) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 3);
  ASSERT_TRUE(function->polling());
  board->answer(BoardOp::get_p_port_sfp_rx_power, Brd__sfp_rx_power{0, 4, 0, {1.0F, 0.0F, 0.0F, 0.0F, 0.0F}});
  ipc::Payload payload = u32(3);
  payload.resize(100000, 0x01);
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, payload)));
  EXPECT_EQ(only_answer(1), (ipc::Payload{0, 0, 0, 0, 0, 0, 0xF0, 0x3F}));
}

TEST_F(SfpMonitoringTest, RxPowerWithoutReplyInformationEndsInAnException) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 3);
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(error_of(ipc->inject_request(without_reply(request(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, u32(3))))),
            Error::Exception);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(SfpMonitoringTest, RxPowerReadFailureIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 3);
  ASSERT_TRUE(function->polling());
  board->throw_non_std(BoardOp::get_p_port_sfp_rx_power);
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, u32(3)))), Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
  EXPECT_TRUE(logger->contains("An exception was thrown. ", 4));
}

// --- Transmitter switch -----------------------------------------------------------------------

TEST_F(SfpMonitoringTest, TrxRequestsSwitchTheirGroupsTransmitter) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 4);
  plug(false, 4);
  ASSERT_TRUE(function->polling());
  for (const int id : {15523, 15524, 15525, 15526}) {
    ipc->clear_sent();
    ASSERT_TRUE(ipc->inject_request(request(static_cast<std::uint16_t>(id), u32(4))));
    EXPECT_TRUE(only_answer(1).empty());
  }
  const auto p = board->arguments<Brd__cntrl_sfp_trx>(BoardOp::cntrl_p_port_sfp_trx);
  const auto f = board->arguments<Brd__cntrl_sfp_trx>(BoardOp::cntrl_f_port_sfp_trx);
  ASSERT_EQ(p.size(), 2U);
  ASSERT_EQ(f.size(), 2U);
  EXPECT_EQ(p[0].port, 4U);
  EXPECT_EQ(p[0].enable, 1);
  EXPECT_EQ(f[0].enable, 1);
  EXPECT_EQ(p[1].enable, 0);
  EXPECT_EQ(f[1].port, 4U);
  EXPECT_EQ(f[1].enable, 0);
}

TEST_F(SfpMonitoringTest, TrxForAnEmptyCageIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX, u32(0xFFFFFFFF)))),
            Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
  EXPECT_EQ(board->count(BoardOp::cntrl_f_port_sfp_trx), 0U);
}

TEST_F(SfpMonitoringTest, TrxWithAnEmptyPayloadIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX))), Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
}

TEST_F(SfpMonitoringTest, TrxWithThreeBytesIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 0);
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX, {0, 0, 0}))),
            Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
}

TEST_F(SfpMonitoringTest, TrxWithAFarTooLongPayloadReadsItsFirstFourBytes) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 2);
  ASSERT_TRUE(function->polling());
  ipc::Payload payload = u32(2);
  payload.resize(5000, 0x7F);
  ASSERT_TRUE(ipc->inject_request(request(IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX, payload)));
  EXPECT_TRUE(only_answer(1).empty());
  EXPECT_EQ(board->arguments<Brd__cntrl_sfp_trx>(BoardOp::cntrl_p_port_sfp_trx).at(0).port, 2U);
}

TEST_F(SfpMonitoringTest, TrxWithoutReplyInformationEndsInAnExceptionAfterSwitching) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(true, 2);
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(
      error_of(ipc->inject_request(without_reply(request(IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX, u32(2))))),
      Error::Exception);
  EXPECT_EQ(board->count(BoardOp::cntrl_p_port_sfp_trx), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(SfpMonitoringTest, TrxBoardFailureIsAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  plug(false, 2);
  ASSERT_TRUE(function->polling());
  board->fail(BoardOp::cntrl_f_port_sfp_trx, Error::ErrorCApi);
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX, u32(2)))),
            Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
}

TEST_F(SfpMonitoringTest, FailedAnswerReturnsTheSendError) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ipc->fail_next_send(Error::InvalidState);
  EXPECT_EQ(error_of(ipc->inject_request(request(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO))), Error::InvalidState);
  EXPECT_TRUE(ipc->responses().empty());
}

// --- Routing and families -------------------------------------------------------------------

TEST_F(SfpMonitoringTest, UnknownIdIsUnexpected) {
  auto function = make();
  logger->clear();
  const auto handled = function->handle_request(request(IPC_SYSTEM_MGR__GET_TEMP));
  ASSERT_FALSE(handled);
  EXPECT_EQ(handled.error().error, Error::CommonError);
  EXPECT_EQ(handled.error().to_string(), "Error: CommonError. Message: Unexpected IPC request: 15500|15515.");
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_TRUE(logger->texts().empty());
}

struct Refusal {
  std::uint16_t id;
  DeviceFamily refusing;
  const char* identifier;
  const char* text;
};

constexpr Refusal kRefusals[] = {
    {15516, DeviceFamily::FC, "IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT",
     "IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT request can be handled only LC or LT device family"},
    {15517, DeviceFamily::LC, "IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT",
     "IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT request can be handled only FC or LT device family"},
    {15518, DeviceFamily::FC, "IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA",
     "IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA request can be handled only LC or LT device family"},
    {15519, DeviceFamily::LC, "IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA",
     "IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA request can be handled only FC or LT device family"},
    {15520, DeviceFamily::FC, "IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER",
     "IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER request can be handled only LC or LT device family"},
    {15521, DeviceFamily::FC, "IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO",
     "IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO request can be handled only LC or LT device family"},
    {15522, DeviceFamily::LC, "IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO",
     "IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO request can be handled only FC or LT device family"},
    {15523, DeviceFamily::FC, "IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX",
     "IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX request can be handled only LT or LC device family"},
    {15524, DeviceFamily::LC, "IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX",
     "IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX request can be handled only FC or LT device family"},
    {15525, DeviceFamily::FC, "IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX",
     "IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX request can be handled only LT or LC device family"},
    {15526, DeviceFamily::LC, "IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX",
     "IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX request can be handled only FC or LT device family"},
};

class SfpRefusalTest : public SfpMonitoringTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(SfpRefusalTest, WrongFamilyLogsItsTextAndAnswersWithAnError) {
  const Refusal& refusal = GetParam();
  auto function = make();
  plug(true, 0);
  plug(false, 0);
  ASSERT_TRUE(function->polling());
  function->set_family(refusal.refusing);
  ipc->clear_sent();
  board->clear_calls();
  logger->clear();
  const auto handled = function->handle_request(request(refusal.id, u32(0)));
  EXPECT_EQ(error_of(handled), Error::CommonError);
  EXPECT_TRUE(only_answer(0).empty());
  EXPECT_TRUE(events().empty());
  EXPECT_TRUE(board->calls().empty());
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{std::string("Handle IPC request [") + refusal.identifier + "]", refusal.text}));
  EXPECT_TRUE(logger->contains(refusal.text, 4));
}

TEST_P(SfpRefusalTest, WrongFamilyWithoutReplyInformationEndsInAnException) {
  const Refusal& refusal = GetParam();
  auto function = make();
  function->set_family(refusal.refusing);
  EXPECT_EQ(error_of(function->handle_request(without_reply(request(refusal.id, u32(0))))), Error::Exception);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_P(SfpRefusalTest, TheOtherNonLtFamilyIsServed) {
  const Refusal& refusal = GetParam();
  auto function = make();
  plug(true, 0);
  plug(false, 0);
  ASSERT_TRUE(function->polling());
  // P-port requests are the ones FC refuses: LC serves them, and FC the F-port ones.
  const bool p_port = refusal.refusing == DeviceFamily::FC;
  function->set_family(p_port ? DeviceFamily::LC : DeviceFamily::FC);
  ipc->clear_sent();
  board->clear_calls();
  ASSERT_TRUE(function->handle_request(request(refusal.id, u32(0))));
  const auto answer = only_answer(1);
  // The board's diagnostics and RX-power readings are left zero here.
  switch (refusal.id) {
    case 15516:
    case 15517: {
      // The group's module is published again, then the answer is empty.
      EXPECT_TRUE(answer.empty());
      const auto sent = events();
      ASSERT_EQ(sent.size(), 1U);
      EXPECT_EQ(sent[0].id, p_port ? 15539 : 15541);
      EXPECT_EQ(sent[0].payload, record_bytes(0, 0x11));
      break;
    }
    case 15518:
    case 15519: {
      // Port 0, diagnostics valid, every converted value 0.0.
      ipc::Payload expected = u32(0);
      expected.push_back(1);
      expected.resize(133, 0);
      EXPECT_EQ(answer, expected);
      EXPECT_EQ(board->count(p_port ? BoardOp::get_p_port_sfp_eddi_data : BoardOp::get_f_port_sfp_eddi_data), 1U);
      break;
    }
    case 15520:
      // Zero coefficients: 0.0.
      EXPECT_EQ(answer, ipc::Payload(8, 0));
      EXPECT_EQ(board->count(BoardOp::get_p_port_sfp_rx_power), 1U);
      break;
    case 15521:
    case 15522:
      EXPECT_EQ(answer, record_bytes(0, 0x11));
      break;
    default: {
      // The transmitter of the group's port 0 is switched on (15523, 15524) or off, then the answer is empty.
      EXPECT_TRUE(answer.empty());
      const auto switched =
          board->arguments<Brd__cntrl_sfp_trx>(p_port ? BoardOp::cntrl_p_port_sfp_trx : BoardOp::cntrl_f_port_sfp_trx);
      ASSERT_EQ(switched.size(), 1U);
      EXPECT_EQ(switched[0].port, 0U);
      EXPECT_EQ(switched[0].enable, (refusal.id == 15523 || refusal.id == 15524) ? 1 : 0);
      break;
    }
  }
  EXPECT_EQ(events().size(), (refusal.id == 15516 || refusal.id == 15517) ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(EveryRequest, SfpRefusalTest, ::testing::ValuesIn(kRefusals),
                         [](const ::testing::TestParamInfo<Refusal>& param) { return std::to_string(param.param.id); });

}  // namespace
}  // namespace xpon::system_mgr
