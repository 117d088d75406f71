// The base's contract, checked for every system function: the lines of its creation and
// destruction, the exact order of its subscriptions and unsubscriptions, an unreadable
// configuration section, a failing send, and for every request of the catalogue it routes the
// payload edge cases (empty, one byte short of its argument, one byte long, 4096 bytes) and a
// request without reply information.

#include "function_test.hpp"
#include "xpon/core/host_path.hpp"
#include "xpon/system_mgr/functions/cpu_load_monitoring.hpp"
#include "xpon/system_mgr/functions/fan_module_monitoring.hpp"
#include "xpon/system_mgr/functions/fan_monitoring.hpp"
#include "xpon/system_mgr/functions/hdd_monitoring.hpp"
#include "xpon/system_mgr/functions/led_panel_cntrl.hpp"
#include "xpon/system_mgr/functions/misc_parameters.hpp"
#include "xpon/system_mgr/functions/ps_monitoring.hpp"
#include "xpon/system_mgr/functions/pwr_module_monitoring.hpp"
#include "xpon/system_mgr/functions/ram_monitoring.hpp"
#include "xpon/system_mgr/functions/sfp_monitoring.hpp"
#include "xpon/system_mgr/functions/temp_monitoring.hpp"
#include "xpon/test/fake_board.hpp"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;

// The answer records the daemon passes through from the driver have the driver's layout.
static_assert(SYSTEM_MGR_LED_ARGUMENT_SIZE == sizeof(Brd__led), "the LED argument is the driver's LED record");
static_assert(sizeof(System_mgr__temperature) == sizeof(Brd__temp_info));
static_assert(offsetof(System_mgr__temperature, temperature) == offsetof(Brd__temp_info, temperature));
static_assert(sizeof(System_mgr__fan_state) == sizeof(Brd__fan_info));
static_assert(offsetof(System_mgr__fan_state, speed) == offsetof(Brd__fan_info, speed));
static_assert(sizeof(System_mgr__fan_module_state) == sizeof(Wake__fan_module__data));
static_assert(offsetof(System_mgr__fan_module_state, count) == offsetof(Wake__fan_module__data, count));
static_assert(sizeof(System_mgr__fan_module_factory) == sizeof(Wake__fan_module__factory));
static_assert(sizeof(System_mgr__pwr_module_state) == sizeof(Wake__pwr_module));
static_assert(sizeof(System_mgr__ps_state) == sizeof(Brd__ps_info));

/// An endpoint that also keeps the order of every subscription and unsubscription, as
/// "+request <id>", "-request <id>", "+event <id>", "-event <id>" (module word IPC_SYSTEM_MGR).
class JournalIpc : public test::RecordingIpc {
 public:
  core::Result<void> subscribe_request(ipc::Key key, ipc::RequestHandler handler) override {
    note("+request", key);
    return RecordingIpc::subscribe_request(key, std::move(handler));
  }
  core::Result<void> unsubscribe_request(ipc::Key key) override {
    note("-request", key);
    return RecordingIpc::unsubscribe_request(key);
  }
  core::Result<void> subscribe_event(ipc::Key key, ipc::EventHandler handler) override {
    note("+event", key);
    return RecordingIpc::subscribe_event(key, std::move(handler));
  }
  core::Result<void> unsubscribe_event(ipc::Key key) override {
    note("-event", key);
    return RecordingIpc::unsubscribe_event(key);
  }

  [[nodiscard]] std::vector<std::string> journal() const {
    const std::lock_guard lock(journal_mutex_);
    return journal_;
  }
  void clear_journal() {
    const std::lock_guard lock(journal_mutex_);
    journal_.clear();
  }

 private:
  void note(const char* what, ipc::Key key) {
    const std::lock_guard lock(journal_mutex_);
    journal_.push_back(std::string(what) + " " + (key.group == IPC_SYSTEM_MGR ? "" : std::to_string(key.group) + ":") +
                       std::to_string(key.id));
  }

  mutable std::mutex journal_mutex_;
  std::vector<std::string> journal_;
};

/// A board call as text: the operation's number and the bytes of its argument, so that two
/// calls compare equal exactly when the board was asked the same thing.
std::string call_text(const test::BoardCall& call) {
  std::string text = std::to_string(static_cast<int>(call.op)) + ":";
  const auto append = [&text](const void* data, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    for (std::size_t i = 0; i < size; ++i) {
      text += std::to_string(bytes[i]) + ",";
    }
  };
  std::visit(
      [&](const auto& argument) {
        using Argument = std::decay_t<decltype(argument)>;
        if constexpr (std::is_same_v<Argument, std::vector<Brd__temp_info>>) {
          append(argument.data(), argument.size() * sizeof(Brd__temp_info));
        } else if constexpr (!std::is_same_v<Argument, std::monostate>) {
          append(&argument, sizeof argument);
        }
      },
      call.argument);
  return text;
}

std::vector<std::string> calls_text(const test::FakeBoard& board) {
  std::vector<std::string> texts;
  for (const auto& call : board.calls()) {
    texts.push_back(call_text(call));
  }
  return texts;
}

/// What a function under test is made of.
struct Parts {
  std::shared_ptr<test::RecordingLogger> logger;
  std::shared_ptr<JournalIpc> ipc;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb;
  std::shared_ptr<test::FakeBoard> board;
  std::shared_ptr<test::FakeHost> host;
  std::chrono::milliseconds period;
};

/// A configuration field stored so that its getter refuses it, and what the construction then throws.
struct Unreadable {
  cfgdb::SectionRef section;
  const char* field;
  const char* value;
  const char* failure;
};

/// One system function and what the contract expects of it.
struct FunctionCase {
  const char* function;
  std::chrono::milliseconds period;
  /// The subscriptions of ipc_subscribe, in order: "request <id>" or "event <id>".
  std::vector<std::string> subscriptions;
  /// The routed requests the default board and host answer with the error response.
  std::set<std::uint16_t> refused;
  std::optional<Unreadable> unreadable;
  /// Whether a poll on the default board and host sends at least one alarm.
  bool poll_sends_alarms;
  std::unique_ptr<SysFunction> (*make)(const Parts& parts);
  /// Makes what the function reads readable on the fake host or board, when the defaults are not.
  void (*prepare)(const Parts& parts) = nullptr;
  /// Whether the requests need a poll first (the SFP requests are about the modules a poll found).
  bool poll_before_requests = false;
};

void PrintTo(const FunctionCase& function, std::ostream* out) {
  *out << function.function;
}

const FunctionCase kFunctions[] = {
    {"CpuLoadMonitoring",
     30000ms,
     {},
     {},
     Unreadable{cfgdb::kAlarmSystemLoadAverage, "threshold", "70000",
                "Config update for CpuLoadMonitoring failed (Error: ErrorCApi) "},
     true,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<CpuLoadMonitoring>(p.logger, p.ipc, p.cfgdb, p.period, p.host);
     }},
    {"RamMonitoring",
     30000ms,
     {"request 15501"},
     {},
     Unreadable{cfgdb::kAlarmSystemRam, "threshold", "300",
                "Config update for RamMonitoring failed (Error: ErrorCApi) "},
     true,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<RamMonitoring>(p.logger, p.ipc, p.cfgdb, p.period, p.host);
     },
     [](const Parts& p) { p.host->set_file("/proc/meminfo", "MemTotal:       16384 kB\nMemFree:         2048 kB\n"); }},
    {"HddMonitoring",
     30000ms,
     {"request 15502"},
     {},
     Unreadable{cfgdb::kAlarmDiskSpace, "threshold", "70000",
                "Config update for HddMonitoring failed (Error: ErrorCApi) "},
     true,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<HddMonitoring>(p.logger, p.ipc, p.cfgdb, p.period, p.host);
     },
     [](const Parts& p) {
       for (const char* partition :
            {"/boot", "/data", "/configuration", "/firmware/primary_firmware", "/firmware/secondary_firmware"}) {
         struct statvfs stats {};
         stats.f_bsize = 4096;
         stats.f_frsize = 4096;
         stats.f_blocks = 1024;
         stats.f_bavail = 512;
         p.host->set_file_system(core::host_path(partition), stats);
       }
     }},
    {"PsMonitoring",
     1000ms,
     {"request 15529"},
     {},
     std::nullopt,
     false,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<PsMonitoring>(p.logger, p.ipc, p.board, p.period, p.host);
     }},
    {"PwrModuleMonitoring",
     30000ms,
     {"request 15533"},
     {},
     std::nullopt,
     false,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<PwrModuleMonitoring>(p.logger, p.ipc, p.cfgdb, p.board, p.period);
     }},
    {"LedPanelCntrl",
     0ms,
     {"request 15503"},
     {},
     std::nullopt,
     false,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<LedPanelCntrl>(p.logger, p.ipc, p.board);
     }},
    {"MiscParameters",
     0ms,
     {"request 15504", "request 15505", "request 15506", "request 15507", "request 15508", "request 15509",
      "request 15510", "request 15511", "request 15512", "request 15513", "request 15514", "request 15534",
      "request 15535", "request 15536"},
     {IPC_SYSTEM_MGR__GET_CRATE_FACTORY},
     std::nullopt,
     false,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<MiscParameters>(p.logger, p.ipc, p.board);
     }},
    {"SfpMonitoring",
     1000ms,
     {"request 15516", "request 15517", "request 15518", "request 15519", "request 15520", "request 15521",
      "request 15522", "request 15523", "request 15524", "request 15525", "request 15526"},
     {},
     std::nullopt,
     false,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<SfpMonitoring>(p.logger, p.ipc, p.board, p.period);
     },
     [](const Parts& p) {
       Brd__sfp_state present{};
       present.present = 1;
       p.board->answer_port(test::BoardOp::get_p_port_sfp_state, 0, present);
       p.board->answer_port(test::BoardOp::get_f_port_sfp_state, 0, present);
     },
     true},
    {"TempMonitoring",
     20000ms,
     {"request 15515", "event 15537", "event 15538"},
     {},
     Unreadable{cfgdb::kAlarmSystemTemperature, "sensor0_upper", "300",
                "Config update for TempMonitoring failed (Error: ErrorCApi) "},
     false,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<TempMonitoring>(p.logger, p.ipc, p.cfgdb, p.board, p.period, p.host);
     }},
    {"FanMonitoring",
     30000ms,
     {"request 15527", "request 15528"},
     {},
     Unreadable{cfgdb::kAlarmSystemFan, "upper_speed", "70000",
                "Config update for FanMonitoring failed (Error: ErrorCApi) "},
     false,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<FanMonitoring>(p.logger, p.ipc, p.cfgdb, p.board, p.period);
     }},
    {"FanModuleMonitoring",
     30000ms,
     {"request 15530", "request 15531", "request 15532"},
     {},
     Unreadable{cfgdb::kAlarmSystemFan, "lower_speed", "-1",
                "Config update for FanModuleMonitoring failed (Error: ErrorCApi) "},
     true,
     [](const Parts& p) -> std::unique_ptr<SysFunction> {
       return std::make_unique<FanModuleMonitoring>(p.logger, p.ipc, p.cfgdb, p.board, p.period);
     }},
};

class FunctionContractTest : public FunctionTest, public testing::WithParamInterface<FunctionCase> {
 protected:
  std::unique_ptr<SysFunction> make() {
    const Parts parts{logger, journal, cfgdb, board, host, GetParam().period};
    if (GetParam().prepare != nullptr) {
      GetParam().prepare(parts);
    }
    return GetParam().make(parts);
  }

  /// The function, subscribed, with the log and the sends of its creation forgotten.
  std::unique_ptr<SysFunction> subscribed() {
    auto function = make();
    EXPECT_TRUE(function->ipc_subscribe());
    if (GetParam().poll_before_requests) {
      EXPECT_TRUE(function->polling());
    }
    logger->clear();
    journal->clear_sent();
    board->clear_calls();
    return function;
  }

  /// The requests the function subscribes, in order.
  [[nodiscard]] std::vector<const RequestInfo*> routed() const {
    std::vector<const RequestInfo*> infos;
    for (const auto& subscription : GetParam().subscriptions) {
      if (subscription.starts_with("request ")) {
        const auto id = static_cast<std::uint16_t>(std::stoul(subscription.substr(8)));
        const RequestInfo* info = find_request(id);
        EXPECT_NE(info, nullptr) << id;
        if (info != nullptr) {
          infos.push_back(info);
        }
      }
    }
    return infos;
  }

  /// The request with this payload sent to the function: its result, and the one response it
  /// got (nothing when it got none or more than one, which the caller checks).
  struct Outcome {
    bool ok = false;
    std::optional<ipc::Response> response;
    std::size_t responses = 0;
  };
  Outcome send(std::uint16_t id, ipc::Payload payload) {
    journal->clear_sent();
    Outcome outcome;
    outcome.ok = journal->inject_request(request_to(id, std::move(payload))).has_value();
    const auto responses = journal->responses();
    outcome.responses = responses.size();
    if (responses.size() == 1) {
      EXPECT_EQ(responses[0].address, kRequestSender);
      EXPECT_EQ(responses[0].response.reply_tag, kRequestTag);
      EXPECT_EQ(responses[0].response.address, 0x0000FFFEU);
      outcome.response = responses[0].response;
    }
    return outcome;
  }

  std::shared_ptr<JournalIpc> journal = std::make_shared<JournalIpc>();
  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

TEST_P(FunctionContractTest, LogsItsCreationAndDestructionAndKeepsItsNameAndPeriod) {
  auto function = make();
  EXPECT_EQ(function->name(), GetParam().function);
  EXPECT_EQ(function->period(), GetParam().period);
  EXPECT_FALSE(function->is_running());
  function.reset();
  const std::string name(GetParam().function);
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{"SysFunction create successfully", name + " create successfully",
                                      name + " destroy successfully", "SysFunction destroy successfully"}));
  for (const auto& line : logger->lines()) {
    EXPECT_EQ(line.level, 0) << line.text;
  }
  EXPECT_TRUE(journal->journal().empty());
}

TEST_P(FunctionContractTest, SubscribesAndUnsubscribesInExactlyTheDesignedOrder) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  std::vector<std::string> subscribed;
  std::vector<std::string> unsubscribed;
  for (const auto& subscription : GetParam().subscriptions) {
    subscribed.push_back("+" + subscription);
    unsubscribed.push_back("-" + subscription);
  }
  EXPECT_EQ(journal->journal(), subscribed);
  journal->clear_journal();
  ASSERT_TRUE(function->ipc_unsubscribe());
  EXPECT_EQ(journal->journal(), unsubscribed);
  EXPECT_TRUE(journal->request_subscriptions().empty());
  EXPECT_TRUE(journal->event_subscriptions().empty());
}

TEST_P(FunctionContractTest, EveryRoutedRequestIsInTheCatalogueAndServedOnAFamilyOfTheFunction) {
  for (const RequestInfo* info : routed()) {
    EXPECT_NE(info->families, 0U) << info->name;
    EXPECT_EQ(info->name.substr(0, 16), "IPC_SYSTEM_MGR__");
  }
}

// The cases that concern only some of the functions, each instantiated for those alone.
class SubscribingFunctionTest : public FunctionContractTest {};  // a function that subscribes requests or events
class ConfiguredFunctionTest : public FunctionContractTest {};   // one that reads a configuration section
class AlarmingFunctionTest : public FunctionContractTest {};     // one whose poll sends alarms on the default board

TEST_P(SubscribingFunctionTest, AFailingSubscriptionKeepsTheFunctionFromRunning) {
  auto function = make();
  board->clear_calls();
  journal->fail_next_subscribe(Error::InvalidState);
  const auto result = function->run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
  EXPECT_FALSE(function->is_running());
  // No poll was made, and nothing after the failed subscription was tried.
  EXPECT_TRUE(board->calls().empty());
  EXPECT_EQ(journal->journal(), (std::vector<std::string>{"+" + GetParam().subscriptions.front()}));
}

TEST_P(SubscribingFunctionTest, AFailingFirstSubscriptionIsReturnedAndEndsTheWalk) {
  auto function = make();
  journal->fail_next_subscribe(Error::InvalidState);
  const auto result = function->ipc_subscribe();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_EQ(journal->subscribe_calls(), 1U);
  EXPECT_EQ(journal->journal(), (std::vector<std::string>{"+" + GetParam().subscriptions.front()}));
  EXPECT_TRUE(journal->request_subscriptions().empty());
  EXPECT_TRUE(journal->event_subscriptions().empty());
}

TEST_P(ConfiguredFunctionTest, AnUnreadableSectionFailsTheConstruction) {
  const Unreadable& unreadable = *GetParam().unreadable;
  store_raw_field(unreadable.section, unreadable.field, unreadable.value);
  expect_construction_failure([&] { make(); }, unreadable.failure);
  EXPECT_TRUE(logger->contains("C API function returned -1, errno=22", 4));
  EXPECT_FALSE(logger->contains(std::string(GetParam().function) + " create successfully"));
  // The refusal is reported, not left in errno; the board is not asked anything without a configuration.
  EXPECT_EQ(errno, 0);
  EXPECT_TRUE(board->calls().empty());
  EXPECT_TRUE(journal->journal().empty());
}

TEST_P(AlarmingFunctionTest, AFailingAlarmSendEndsThePollWithTheSendError) {
  auto function = make();
  logger->clear();
  journal->fail_next_send(Error::InvalidState);
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
  EXPECT_TRUE(journal->events().empty());
}

TEST_P(FunctionContractTest, EveryRequestAnswersOnceWithTheShapeTheCatalogueGives) {
  auto function = subscribed();
  for (const RequestInfo* info : routed()) {
    const auto outcome = send(info->id, ipc::Payload(argument_size(info->argument), 0));
    ASSERT_EQ(outcome.responses, 1U) << info->name;
    const auto& response = *outcome.response;
    EXPECT_TRUE(logger->contains("Handle IPC request [" + std::string(info->name) + "]", 0)) << info->name;
    if (GetParam().refused.contains(info->id)) {
      EXPECT_FALSE(outcome.ok) << info->name;
      EXPECT_EQ(response.result, 0U) << info->name;
      EXPECT_TRUE(response.payload.empty()) << info->name;
      continue;
    }
    EXPECT_TRUE(outcome.ok) << info->name;
    if (response.result != 1U) {
      ADD_FAILURE() << info->name << " got the error response";
      continue;
    }
    switch (info->answer) {
      case SYSTEM_MGR_ANSWER_EMPTY:
        EXPECT_TRUE(response.payload.empty()) << info->name;
        break;
      case SYSTEM_MGR_ANSWER_ONE:
        EXPECT_EQ(response.payload.size(), info->record_size) << info->name;
        break;
      case SYSTEM_MGR_ANSWER_EACH:
        ASSERT_NE(info->record_size, 0U) << info->name;
        EXPECT_EQ(response.payload.size() % info->record_size, 0U) << info->name;
        break;
    }
  }
}

TEST_P(FunctionContractTest, ARequestShorterThanItsArgumentGetsTheErrorResponse) {
  auto function = subscribed();
  for (const RequestInfo* info : routed()) {
    const std::size_t needed = argument_size(info->argument);
    if (needed == 0) {
      continue;
    }
    for (const std::size_t length : {std::size_t{0}, needed - 1}) {
      board->clear_calls();
      const auto outcome = send(info->id, ipc::Payload(length, 0));
      EXPECT_FALSE(outcome.ok) << info->name << " " << length;
      ASSERT_EQ(outcome.responses, 1U) << info->name << " " << length;
      EXPECT_EQ(outcome.response->result, 0U) << info->name << " " << length;
      EXPECT_TRUE(outcome.response->payload.empty()) << info->name << " " << length;
      // Refused before the board is asked to do anything.
      EXPECT_TRUE(board->calls().empty()) << info->name << " " << length;
    }
  }
}

TEST_P(FunctionContractTest, BytesAfterTheArgumentAreIgnoredUpTo4096) {
  auto function = subscribed();
  for (const RequestInfo* info : routed()) {
    const std::size_t needed = argument_size(info->argument);
    board->clear_calls();
    const auto exact = send(info->id, ipc::Payload(needed, 0));
    const auto exact_calls = calls_text(*board);
    ASSERT_EQ(exact.responses, 1U) << info->name;
    for (const std::size_t length : {needed + 1, std::size_t{4096}}) {
      ipc::Payload payload(length, 0xEE);
      std::fill_n(payload.begin(), needed, std::uint8_t{0});
      board->clear_calls();
      const auto longer = send(info->id, payload);
      // The board is asked exactly what the exact payload asked it.
      EXPECT_EQ(calls_text(*board), exact_calls) << info->name << " " << length;
      EXPECT_EQ(longer.ok, exact.ok) << info->name << " " << length;
      ASSERT_EQ(longer.responses, 1U) << info->name << " " << length;
      EXPECT_EQ(longer.response->result, exact.response->result) << info->name << " " << length;
      EXPECT_EQ(longer.response->payload, exact.response->payload) << info->name << " " << length;
    }
  }
}

TEST_P(FunctionContractTest, ARequestWithoutReplyInformationIsNeverAnswered) {
  auto function = subscribed();
  for (const RequestInfo* info : routed()) {
    journal->clear_sent();
    auto request = request_to(info->id, ipc::Payload(argument_size(info->argument), 0));
    request.reply_to.reset();
    // What the handler then returns is its own (std::bad_optional_access left to the
    // dispatcher, Error::Exception, or success for the readings that answer nothing); the
    // contract is that nothing is sent and nothing else escapes.
    try {
      const auto result = journal->inject_request(request);
      if (result.has_error()) {
        EXPECT_EQ(result.error().error, Error::Exception) << info->name;
      }
    } catch (const std::bad_optional_access&) {
      SUCCEED();
    }
    EXPECT_TRUE(journal->responses().empty()) << info->name;
  }
}

TEST_P(FunctionContractTest, AFailingAnswerIsLoggedAndReturned) {
  auto function = subscribed();
  for (const RequestInfo* info : routed()) {
    logger->clear();
    journal->clear_sent();
    journal->fail_next_send(Error::InvalidState);
    const auto result = journal->inject_request(request_to(info->id, ipc::Payload(argument_size(info->argument), 0)));
    ASSERT_TRUE(result.has_error()) << info->name;
    EXPECT_EQ(result.error().error, Error::InvalidState) << info->name;
    EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4)) << info->name;
    EXPECT_TRUE(journal->responses().empty()) << info->name;
  }
}

TEST_P(FunctionContractTest, AnIdItDoesNotRouteIsNeitherAnsweredNorLogged) {
  auto function = subscribed();
  // An id of the catalogue that no function routes twice: each function gets one it does not route.
  const std::uint16_t foreign = GetParam().subscriptions == std::vector<std::string>{"request 15501"}
                                    ? IPC_SYSTEM_MGR__GET_HDD_DATA
                                    : IPC_SYSTEM_MGR__GET_RAM_DATA;
  auto request = request_to(foreign);
  const auto result = function->handle_request(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().to_string(),
            "Error: CommonError. Message: Unexpected IPC request: 15500|" + std::to_string(foreign) + ".");
  EXPECT_TRUE(logger->texts().empty());
  EXPECT_TRUE(journal->responses().empty());
  EXPECT_TRUE(board->calls().empty());
}

std::string function_name(const testing::TestParamInfo<FunctionCase>& function) {
  return std::string(function.param.function);
}

/// The functions of kFunctions for which `applies` holds, in their order.
template <typename Predicate>
std::vector<FunctionCase> functions_where(Predicate applies) {
  std::vector<FunctionCase> chosen;
  std::copy_if(std::begin(kFunctions), std::end(kFunctions), std::back_inserter(chosen), applies);
  return chosen;
}

INSTANTIATE_TEST_SUITE_P(EveryFunction, FunctionContractTest, testing::ValuesIn(kFunctions), function_name);
INSTANTIATE_TEST_SUITE_P(EveryFunction, SubscribingFunctionTest,
                         testing::ValuesIn(functions_where([](const FunctionCase& function) {
                           return !function.subscriptions.empty();
                         })),
                         function_name);
INSTANTIATE_TEST_SUITE_P(EveryFunction, ConfiguredFunctionTest,
                         testing::ValuesIn(functions_where([](const FunctionCase& function) {
                           return function.unreadable.has_value();
                         })),
                         function_name);
INSTANTIATE_TEST_SUITE_P(EveryFunction, AlarmingFunctionTest,
                         testing::ValuesIn(functions_where([](const FunctionCase& function) {
                           return function.poll_sends_alarms;
                         })),
                         function_name);

TEST(RequestCatalogue, EveryRequestIsRoutedByExactlyOneFunction) {
  std::multiset<std::uint16_t> routed;
  for (const FunctionCase& function : kFunctions) {
    for (const auto& subscription : function.subscriptions) {
      if (subscription.starts_with("request ")) {
        routed.insert(static_cast<std::uint16_t>(std::stoul(subscription.substr(8))));
      }
    }
  }
  for (const RequestInfo& info : kRequestCatalogue) {
    EXPECT_EQ(routed.count(info.id), 1U) << info.name;
  }
  EXPECT_EQ(routed.size(), std::size(kRequestCatalogue));
}

}  // namespace
}  // namespace xpon::system_mgr
