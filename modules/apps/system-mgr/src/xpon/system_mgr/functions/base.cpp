#include "xpon/system_mgr/functions/base.hpp"

#include "xpon/core/guard.hpp"

#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <stdexcept>
#include <utility>

namespace xpon::system_mgr {

namespace {

using core::Error;
using core::ErrorPayload;

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

timespec monotonic_now() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

// now + period, with every step checked: a period too large to represent is a programming
// error and ends the process rather than wrapping into a deadline in the past.
timespec deadline_after(const timespec& now, std::chrono::milliseconds period) noexcept {
  std::int64_t period_ns = 0;
  std::int64_t now_ns = 0;
  std::int64_t deadline_ns = 0;
  if (__builtin_mul_overflow(static_cast<std::int64_t>(period.count()), std::int64_t{1'000'000}, &period_ns) ||
      __builtin_mul_overflow(static_cast<std::int64_t>(now.tv_sec), kNanosecondsPerSecond, &now_ns) ||
      __builtin_add_overflow(now_ns, static_cast<std::int64_t>(now.tv_nsec), &now_ns) ||
      __builtin_add_overflow(now_ns, period_ns, &deadline_ns)) {
    std::abort();
  }
  timespec deadline{};
  deadline.tv_sec = static_cast<time_t>(deadline_ns / kNanosecondsPerSecond);
  deadline.tv_nsec = static_cast<long>(deadline_ns % kNanosecondsPerSecond);
  return deadline;
}

bool before(const timespec& a, const timespec& b) noexcept {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

std::atomic<IFunctionWaitListener*> function_wait_listener{nullptr};

// Whether the catalogue serves the request on one of the families (SYSTEM_MGR_SERVED_BY_* bits).
bool served_on(std::uint16_t id, unsigned families) noexcept {
  const RequestInfo* info = find_request(id);
  return info != nullptr && (info->families & families) != 0;
}

void report_wait(FunctionWait what, std::string_view function_name) noexcept {
  if (IFunctionWaitListener* listener = function_wait_listener.load(); listener != nullptr) {
    listener->function_wait(what, function_name);
  }
}

}  // namespace

void set_function_wait_listener(IFunctionWaitListener* listener) noexcept {
  function_wait_listener.store(listener);
}

std::uint32_t truncate_to_u32(double value) noexcept {
  // Also false for not-a-number, which therefore gives 0.
  if (!(value > 0.0)) {
    return 0;
  }
  // 2^32 is exact in double; everything from there on (+infinity included) does not fit.
  if (value >= 4294967296.0) {
    return std::numeric_limits<std::uint32_t>::max();
  }
  return static_cast<std::uint32_t>(value);
}

SysFunction::SysFunction(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                         const std::string_view& name, std::chrono::milliseconds period)
    : logger_(logger),
      ipc_(ipc),
      name_(name),
      period_(period),
      running_(false),
      thread_starter_([](std::function<void()> body) { return std::thread(std::move(body)); }),
      lateness_(period) {
  log().progress("SysFunction create successfully");
}

SysFunction::~SysFunction() {
  log().progress("SysFunction destroy successfully");
  if (thread_.joinable()) {
    // The thread still uses this object: stop() must have been called. Ending the process is
    // what std::thread's destructor would do anyway; this says why first.
    std::fputs("SysFunction destroyed while its polling thread runs: stop was not called\n", stderr);
    std::terminate();
  }
}

ILogger& SysFunction::log() const noexcept {
  if (!logger_) {
    std::fputs("SysFunction has no logger to log to\n", stderr);
    std::abort();
  }
  return *logger_;
}

Result<void> SysFunction::config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& /*changes*/) {
  return core::success();
}

Result<void> SysFunction::master_change(const ServiceCtx& /*ctx*/) {
  return core::success();
}

std::optional<std::chrono::milliseconds> PollLateness::poll_started(Clock::time_point start) noexcept {
  std::optional<std::chrono::milliseconds> opened;
  if (previous_) {
    const auto late = std::chrono::duration_cast<std::chrono::milliseconds>(start - (*previous_ + period_));
    if (late <= period_) {
      behind_ = false;
    } else if (!behind_) {
      behind_ = true;
      opened = late;
    }
  }
  previous_ = start;
  return opened;
}

Result<void> SysFunction::polling() {
  return ErrorPayload(Error::NotImplemented);
}

Result<void> SysFunction::ipc_subscribe() {
  if (!routes_) {
    return ErrorPayload(Error::NotImplemented);
  }
  return subscribe_routes();
}

Result<void> SysFunction::ipc_unsubscribe() {
  if (!routes_) {
    return ErrorPayload(Error::NotImplemented);
  }
  return unsubscribe_routes();
}

Result<void> SysFunction::run() {
  auto subscribed = core::guarded_call(log(), [this] { return ipc_subscribe(); });
  if (!subscribed) {
    return core::propagate(log(), std::move(subscribed));
  }

  // The first poll runs here, on the caller's thread. Its error does not stop the start:
  // the thread polls again one period later. It holds the polling mutex like every later poll,
  // so that request and event paths that take it (subscribed just before) never overlap it.
  report_wait(FunctionWait::FirstPoll, name_);
  const auto first_poll = core::guarded_call(log(), [this] {
    const std::lock_guard lock(mutex_);
    (void)lateness_.poll_started(PollLateness::Clock::now());
    return polling();
  });
  report_wait(FunctionWait::Nothing, name_);
  if (first_poll.has_error() && first_poll.error().error == Error::NotImplemented) {
    log().progress("Polling not required for System function: {}", name_);
    return core::success();
  }

  try {
    if (thread_.joinable()) {
      // A second run without stop is a programming error.
      std::fputs("SysFunction run called again without stop\n", stderr);
      std::terminate();
    }
    thread_ = thread_starter_([this] { thread_fn(); });
    running_.store(true);
    return core::success();
  } catch (const std::exception& caught) {
    auto undone = core::guarded_call(log(), [this] { return ipc_unsubscribe(); });
    (void)core::propagate(log(), std::move(undone));
    const std::string text = fmt::format("Exception on run System function: {} | {}", name_, caught.what());
    log().error("{}", text);
    return ErrorPayload(Error::Exception, text);
  } catch (...) {
    auto undone = core::guarded_call(log(), [this] { return ipc_unsubscribe(); });
    (void)core::propagate(log(), std::move(undone));
    const std::string text = fmt::format("Unknown exception on run System function: {}", name_);
    log().error("{}", text);
    return ErrorPayload(Error::Exception, text);
  }
}

void SysFunction::thread_fn() {
  log().progress("Start System function: {}", name_);
  for (;;) {
    std::unique_lock lock(mutex_);
    const timespec deadline = deadline_after(monotonic_now(), period_);
    // std::condition_variable has no wait against CLOCK_MONOTONIC with an absolute
    // timespec, so its native handle is used directly; the mutex is the one locked above.
    ::pthread_cond_clockwait(cv_.native_handle(), mutex_.native_handle(), CLOCK_MONOTONIC, &deadline);
    if (before(monotonic_now(), deadline)) {
      // Deliberately no stop flag: any early wake-up, stop's or a spurious one, ends the
      // thread; stop() relies on it.
      return;
    }
    // Only watched: the schedule above stays as it is, a slow poll (a stalled board call) delays
    // the next one, and this says so once while it lasts.
    if (const auto late = lateness_.poll_started(PollLateness::Clock::now())) {
      log().warning("System function {} fell behind its polling: a poll started {} ms late (period {} ms)", name_,
                    late->count(), period_.count());
    }
    // Errors were logged where they arose; the next period polls again.
    (void)core::guarded_call(log(), [this] { return polling(); });
  }
}

Result<void> SysFunction::stop() {
  auto unsubscribed = core::guarded_call(log(), [this] { return ipc_unsubscribe(); });
  if (running_.load()) {
    report_wait(FunctionWait::PollingThread, name_);
    // Deliberately notified without the mutex and without a stop flag: a wake-up that comes
    // while the thread polls is lost, and the join then waits for the thread's next wait.
    cv_.notify_one();
    thread_.join();
    running_.store(false);
    report_wait(FunctionWait::Nothing, name_);
  }
  if (!unsubscribed) {
    return core::propagate(log(), std::move(unsubscribed));
  }
  return unsubscribed;
}

Result<void> SysFunction::apply_config_changes(const std::vector<Config_change>& changes,
                                               std::initializer_list<ConfigSection> sections,
                                               const std::source_location& caller) {
  for (const auto& change : changes) {
    for (const auto& section : sections) {
      if (change.section_id != section.section.id) {
        continue;
      }
      auto updated = core::guarded_call(log(), section.update, caller);
      if (!updated) {
        return core::propagate(log(), std::move(updated), caller);
      }
      log().log(logger::kProgress, fmt::format("Change config event [{}]", section.section.name), caller);
    }
  }
  return core::success();
}

void SysFunction::declare_routes(std::vector<RequestRoute> routes) {
  for (auto route = routes.begin(); route != routes.end(); ++route) {
    if (find_request(route->id) == nullptr) {
      throw std::invalid_argument(
          fmt::format("{} routes {}, which is not a request of the catalogue", name_, route->id));
    }
    if (std::any_of(routes.begin(), route,
                    [id = route->id](const RequestRoute& earlier) { return earlier.id == id; })) {
      throw std::invalid_argument(fmt::format("{} routes {} twice", name_, route->id));
    }
  }
  routes_ = std::move(routes);
}

Result<void> SysFunction::handle_request(const ipc::Request& request) {
  if (routes_) {
    for (const auto& route : *routes_) {
      if (route.id == request.id) {
        // Every routed id is in the catalogue: declare_routes checked it.
        const RequestInfo* info = find_request(route.id);
        log().log(logger::kProgress, fmt::format("Handle IPC request [{}]", info != nullptr ? info->name : ""),
                  std::source_location::current());
        return route.handler(request);
      }
    }
  }
  return ErrorPayload(Error::CommonError, fmt::format("Unexpected IPC request: {}|{}", request.group, request.id));
}

Result<void> SysFunction::walk_routes(unsigned families, const std::source_location& caller,
                                      const std::function<Result<void>(ipc::Key)>& call) {
  if (!routes_) {
    return core::success();
  }
  for (const auto& route : *routes_) {
    if (!served_on(route.id, families)) {
      continue;
    }
    auto done = core::guarded_call(
        log(),
        [&] {
          return call(ipc::Key{IPC_SYSTEM_MGR, route.id});
        },
        caller);
    if (!done) {
      return core::propagate(log(), std::move(done), caller);
    }
  }
  return core::success();
}

Result<void> SysFunction::subscribe_routes(unsigned families, const std::source_location& caller) {
  return walk_routes(families, caller, [this](ipc::Key key) {
    return ipc_->subscribe_request(key, [this](const ipc::Request& request) { return handle_request(request); });
  });
}

Result<void> SysFunction::unsubscribe_routes(unsigned families, const std::source_location& caller) {
  return walk_routes(families, caller, [this](ipc::Key key) { return ipc_->unsubscribe_request(key); });
}

Result<void> SysFunction::send_answer(const ipc::Request& request, ipc::Payload payload) {
  const ipc::ReplyTo& reply_to = request.reply_to.value();
  ipc::Response response;
  response.payload = std::move(payload);
  response.address = kReplyAddressWord;
  response.reply_tag = reply_to.tag;
  response.result = SYSTEM_MGR_RESULT_ANSWERED;
  return ipc_->send_response(reply_to.address, response);
}

Result<void> SysFunction::answer_request(const ipc::Request& request, ipc::Payload payload,
                                         const std::source_location& caller) {
  // Read unguarded on purpose: a missing reply address is the caller's exception to let go.
  const ipc::ReplyTo& reply_to = request.reply_to.value();
  static_cast<void>(reply_to);
  auto sent = core::guarded_call(
      log(), [&] { return send_answer(request, std::move(payload)); }, caller);
  if (!sent) {
    return core::propagate(log(), std::move(sent), caller);
  }
  return core::success();
}

Result<void> SysFunction::send_error_response(const ipc::Request& req) {
  // Reading reply information that is not there throws; the guard turns it into Error::Exception.
  auto reply_to = core::guarded_call(log(), [&req]() -> Result<ipc::ReplyTo> { return req.reply_to.value(); });
  if (!reply_to) {
    return std::move(reply_to).as_failure();
  }
  ipc::Response response;
  response.address = kReplyAddressWord;
  response.reply_tag = reply_to.value().tag;
  response.result = 0;
  auto sent = core::guarded_call(
      log(), [this, &response, address = reply_to.value().address] { return ipc_->send_response(address, response); });
  if (!sent) {
    return core::propagate(log(), std::move(sent));
  }
  // Deliberately an error after a successful send: a request handler returns this as its own
  // result, so its caller still learns that the request failed.
  return ErrorPayload(Error::CommonError);
}

Result<void> SysFunction::create_alarm_and_send_trap(const Alarm* alarm) {
  if (alarm == nullptr) {
    return core::propagate(log(), Result<void>(ErrorPayload(Error::InvalidInputArg, "no alarm record")));
  }
  ipc::Event event;
  event.payload.resize(sizeof(Alarm));
  std::memcpy(event.payload.data(), alarm, sizeof(Alarm));
  event.address = kReplyAddressWord;
  event.group = kAlarmEventGroup;
  event.id = kAlarmEventId;
  auto sent = core::guarded_call(log(), [this, &event] { return ipc_->send_event(event); });
  if (!sent) {
    return core::propagate(log(), std::move(sent));
  }
  return core::success();
}

}  // namespace xpon::system_mgr
