#pragma once

#include "xpon/cfgdb/sections.hpp"
#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/service/service.hpp"
#include "xpon/system_mgr/api.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <source_location>
#include <string_view>
#include <thread>
#include <vector>

namespace xpon::system_mgr {

using core::Result;
using ipc::IIpc;
using logger::ILogger;
using service::Config_change;
using service::ServiceCtx;

// The 305-byte Alarm record is shared with the daemon's clients (xpon/system_mgr/api.h).
/// Alarm state values of Alarm::state.
inline constexpr std::uint8_t kAlarmRaised = SYSTEM_MGR_ALARM_RAISED;
inline constexpr std::uint8_t kAlarmNormal = SYSTEM_MGR_ALARM_BACK_TO_NORMAL;

/// Address word of the daemon's responses and alarm events.
inline constexpr std::uint32_t kReplyAddressWord = 0x0000FFFE;
/// Header words of the alarm event.
inline constexpr std::uint16_t kAlarmEventGroup = IPC_EVENT_ALARM_GROUP;
inline constexpr std::uint16_t kAlarmEventId = IPC_EVENT_ALARM_ID;

/// A measured value converted to the unsigned 32-bit field of an alarm record, truncated toward
/// zero, with a defined result for every input: not-a-number and anything not above 0 give 0,
/// anything from 2^32 on (+infinity included) gives the maximum.
std::uint32_t truncate_to_u32(double value) noexcept;

/// What a function's run or stop waits for, as reported to the function wait listener.
enum class FunctionWait {
  Nothing,        ///< the wait reported before has ended
  FirstPoll,      ///< run is making the first poll on the caller's thread
  PollingThread,  ///< stop is waiting for the polling thread to end
};

/// Hears, on the thread that runs or stops a function, when its run begins and ends the first
/// poll and when its stop begins and ends waiting for the polling thread, so that a start-up or
/// stop that blocks can name what it waits for. Reports change nothing in the functions.
class IFunctionWaitListener {
 public:
  virtual ~IFunctionWaitListener() = default;

  /// Takes one report; must neither block for long nor throw. function_name is static text.
  virtual void function_wait(FunctionWait what, std::string_view function_name) noexcept = 0;

 protected:
  IFunctionWaitListener() = default;
  IFunctionWaitListener(const IFunctionWaitListener&) = default;
  IFunctionWaitListener& operator=(const IFunctionWaitListener&) = default;
};

/// Sets the listener every function of the process reports to (nullptr, the default: none). The
/// listener must stay alive until it has been replaced and no run or stop is under way.
void set_function_wait_listener(IFunctionWaitListener* listener) noexcept;

/// Tells when a poll starts far behind its schedule, the previous poll's start plus the period:
/// more than one period late opens a lateness episode, reported once; a poll that starts within
/// a period of its schedule closes it.
class PollLateness {
 public:
  using Clock = std::chrono::steady_clock;

  explicit PollLateness(std::chrono::milliseconds period) noexcept : period_(period) {}

  /// Records a poll's start; returns how late it is when it opens an episode, nothing otherwise.
  std::optional<std::chrono::milliseconds> poll_started(Clock::time_point start) noexcept;

 private:
  std::chrono::milliseconds period_;
  std::optional<Clock::time_point> previous_;
  bool behind_ = false;
};

/// One monitoring or control activity of the daemon, as its service drives it.
class ISysFunction {
 public:
  virtual ~ISysFunction() = default;

  /// Re-reads the function's own configuration sections among the changed ones.
  virtual Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) = 0;

  /// Reacts to a change of mastership.
  virtual Result<void> master_change(const ServiceCtx& ctx) = 0;

  /// Subscribes the function's requests, polls once and starts its polling thread if it polls.
  virtual Result<void> run() = 0;

  /// Unsubscribes the function's requests and ends its polling thread.
  virtual Result<void> stop() = 0;

  /// Takes one reading and reports it; Error::NotImplemented for a function that never polls.
  virtual Result<void> polling() = 0;

  /// Subscribes the IPC requests the function answers.
  virtual Result<void> ipc_subscribe() = 0;

  /// Unsubscribes the IPC requests the function answers.
  virtual Result<void> ipc_unsubscribe() = 0;

 protected:
  ISysFunction() = default;
  ISysFunction(const ISysFunction&) = default;
  ISysFunction& operator=(const ISysFunction&) = default;
};

/// The base of every system function: name, shared logger and IPC endpoint, the optional
/// polling thread with its run/stop protocol, and the error-response and alarm helpers.
class SysFunction : public ISysFunction {
 public:
  /// name must be static text (a string literal): the view is kept, not copied.
  SysFunction(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc, const std::string_view& name,
              std::chrono::milliseconds period);
  ~SysFunction() override;
  SysFunction(const SysFunction&) = delete;
  SysFunction& operator=(const SysFunction&) = delete;
  SysFunction(SysFunction&&) = delete;
  SysFunction& operator=(SysFunction&&) = delete;

  /// Returns success: a function that reads no configuration ignores changes.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Returns success: a function that does not care about mastership ignores it.
  Result<void> master_change(const ServiceCtx& ctx) override;

  /// Subscribes, polls once on the caller's thread and, unless polling is not implemented,
  /// starts the polling thread. A second run without stop terminates the process.
  Result<void> run() override;

  /// Unsubscribes, then wakes and joins the polling thread if there is one; the result is
  /// that of the unsubscription.
  Result<void> stop() override;

  /// Error::NotImplemented: a function that does not override it has no polling thread.
  Result<void> polling() override;

  /// Subscribes the requests of the function's route table (subscribe_routes for every family);
  /// Error::NotImplemented for a function that declared no route table: a function that
  /// subscribes nothing must override it with success.
  Result<void> ipc_subscribe() override;

  /// Unsubscribes what ipc_subscribe subscribed, in the same order; Error::NotImplemented for a
  /// function that declared no route table.
  Result<void> ipc_unsubscribe() override;

  /// Logs "Handle IPC request [<catalogue name>]" at level 0 and runs the handler the route table
  /// gives the request's message id; an id the table does not route is neither answered nor
  /// logged here but returned as Error::CommonError "Unexpected IPC request: <group>|<id>".
  /// Exceptions of a handler are left to the caller (the IPC library's dispatcher).
  Result<void> handle_request(const ipc::Request& request);

  /// The function's name.
  [[nodiscard]] std::string_view name() const noexcept { return name_; }

  /// Whether the polling thread is running (from its start in run until stop has joined it).
  [[nodiscard]] bool is_running() const noexcept { return running_.load(); }

  /// The polling period.
  [[nodiscard]] std::chrono::milliseconds period() const noexcept { return period_; }

 protected:
  /// Answers a request with an empty error response (result word 0). Returns
  /// Error::CommonError after a successful send, so that a request handler can return it
  /// as its own result; Error::Exception when the request carries no reply information.
  Result<void> send_error_response(const ipc::Request& req);

  /// Publishes the 305 bytes of the record as the alarm event.
  Result<void> create_alarm_and_send_trap(const Alarm* alarm);

  /// The shared logger; a null logger aborts the process, as that is a programming error.
  [[nodiscard]] ILogger& log() const noexcept;

  /// Wakes the polling thread; if it is waiting for its next poll, it ends. A wake-up that
  /// comes while it polls is lost, exactly as for stop.
  void wake_polling_thread() noexcept { cv_.notify_one(); }

  /// The mutex held for each poll (the first, made by run, included) and the polling thread's
  /// wait; a function whose request, event or configuration paths share state with its poll
  /// takes it there.
  [[nodiscard]] std::mutex& mutex() noexcept { return mutex_; }

  /// One configuration section a function reads, with the call that re-reads it.
  struct ConfigSection {
    cfgdb::SectionRef section;
    std::function<Result<void>()> update;
  };

  /// The shape every function's config_change has: for each change record, in order, naming
  /// one of `sections`, re-read that section (guarded) and log "Change config event [<name>]";
  /// the first failure is logged and returned at once, so later records are not looked at.
  Result<void> apply_config_changes(const std::vector<Config_change>& changes,
                                    std::initializer_list<ConfigSection> sections,
                                    const std::source_location& caller = std::source_location::current());

  /// One request a function answers: its message id (module word IPC_SYSTEM_MGR, an entry of
  /// the request catalogue kRequestCatalogue, whose name is the one logged) and its handler.
  struct RequestRoute {
    std::uint16_t id;
    std::function<Result<void>(const ipc::Request&)> handler;
  };

  /// Declares the function's route table, once, in its constructor. The order of the table is
  /// the order of subscription and of unsubscription. An id that is not in the catalogue, or
  /// one routed twice, is a programming error: std::invalid_argument.
  void declare_routes(std::vector<RequestRoute> routes);

  /// Subscribes, in the route table's order, the routed requests the catalogue serves on one of
  /// `families` (SYSTEM_MGR_SERVED_BY_* bits), each to handle_request and each call guarded; the
  /// first failure is logged and returned, the later ids are not touched and the earlier
  /// subscriptions are not undone.
  Result<void> subscribe_routes(unsigned families = SYSTEM_MGR_SERVED_BY_ALL,
                                const std::source_location& caller = std::source_location::current());

  /// Unsubscribes the same requests in the same order, as subscribe_routes subscribes them.
  Result<void> unsubscribe_routes(unsigned families = SYSTEM_MGR_SERVED_BY_ALL,
                                  const std::source_location& caller = std::source_location::current());

  /// Answers a request: a response with the payload, the address word 0x0000FFFE, the request's
  /// reply tag and the result word 1, sent to the request's sender. A request without reply
  /// information throws std::bad_optional_access, which is left to the caller on purpose: the
  /// functions decide whether that ends their handler or becomes Error::Exception.
  Result<void> send_answer(const ipc::Request& request, ipc::Payload payload);

  /// Answers a request as send_answer does, for the handlers whose request must carry reply
  /// information: a request without it throws std::bad_optional_access out of this call (and so
  /// out of the handler, to the IPC library's dispatcher) before anything is sent, while the send
  /// itself is guarded and a failed send is logged and returned.
  Result<void> answer_request(const ipc::Request& request, ipc::Payload payload,
                              const std::source_location& caller = std::source_location::current());

  /// Starts a thread running `body`; what std::thread's constructor does unless replaced.
  using ThreadStarter = std::function<std::thread(std::function<void()> body)>;

  /// Replaces how run starts the polling thread, so that a failing start can be exercised.
  void set_thread_starter(ThreadStarter starter) { thread_starter_ = std::move(starter); }

 private:
  void thread_fn();

  // Calls `call` with the key of each routed request served on one of `families`, in the route
  // table's order, each call guarded; the first failure is logged and returned.
  Result<void> walk_routes(unsigned families, const std::source_location& caller,
                           const std::function<Result<void>(ipc::Key)>& call);

  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::string_view name_;
  std::chrono::milliseconds period_;
  std::thread thread_;
  std::condition_variable cv_;
  std::mutex mutex_;
  std::atomic<bool> running_;
  ThreadStarter thread_starter_;
  // Set once by declare_routes, in the derived constructor, then only read.
  std::optional<std::vector<RequestRoute>> routes_;
  // Written by run's first poll before the thread starts, then by the polling thread alone.
  PollLateness lateness_;
};

}  // namespace xpon::system_mgr
