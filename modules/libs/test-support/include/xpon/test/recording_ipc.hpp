#pragma once

#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace xpon::test {

/// One response handed to RecordingIpc::send_response, with the address it was sent to.
struct SentResponse {
  ipc::Address address;
  ipc::Response response;
};

/// One request handed to RecordingIpc::request, with the address it was sent to and the time
/// its sender was willing to wait for the answer.
struct SentRequest {
  ipc::Address address;
  ipc::Request request;
  std::chrono::milliseconds timeout;
};

/// An IPC endpoint that keeps everything in memory: it records subscriptions, responses
/// (with their address), events, client connections and requests, lets a test inject a
/// request or an event into the handler subscribed for its key, and can be told to fail
/// the next send. Handlers are called on the injecting thread, outside the fake's lock, so
/// a handler may call back into the fake. Every operation is thread-safe.
class RecordingIpc : public ipc::IIpc {
 public:
  explicit RecordingIpc(ipc::Address own_address = ipc::make_address(0x0019)) : own_address_(own_address) {}

  // --- IIpc -------------------------------------------------------------------------------

  core::Result<void> subscribe_request(ipc::Key key, ipc::RequestHandler handler) override {
    std::lock_guard lock(mutex_);
    ++subscribe_calls_;
    if (auto failure = take_failure(fail_next_subscribe_)) {
      return std::move(*failure);
    }
    if (request_handlers_.contains(key)) {
      return core::ErrorPayload(core::Error::Already, "request key already subscribed");
    }
    request_handlers_.emplace(key, std::move(handler));
    return core::success();
  }

  core::Result<void> unsubscribe_request(ipc::Key key) override {
    std::lock_guard lock(mutex_);
    ++unsubscribe_calls_;
    if (request_handlers_.erase(key) == 0) {
      return core::ErrorPayload(core::Error::Empty, "request key not subscribed");
    }
    return core::success();
  }

  core::Result<void> subscribe_event(ipc::Key key, ipc::EventHandler handler) override {
    std::lock_guard lock(mutex_);
    ++subscribe_calls_;
    if (auto failure = take_failure(fail_next_subscribe_)) {
      return std::move(*failure);
    }
    if (event_handlers_.contains(key)) {
      return core::ErrorPayload(core::Error::Already, "event key already subscribed");
    }
    event_handlers_.emplace(key, std::move(handler));
    return core::success();
  }

  core::Result<void> unsubscribe_event(ipc::Key key) override {
    std::lock_guard lock(mutex_);
    ++unsubscribe_calls_;
    if (event_handlers_.erase(key) == 0) {
      return core::ErrorPayload(core::Error::Empty, "event key not subscribed");
    }
    return core::success();
  }

  core::Result<void> send_response(ipc::Address address, const ipc::Response& response) override {
    std::lock_guard lock(mutex_);
    if (auto failure = take_failure(fail_next_send_)) {
      return std::move(*failure);
    }
    responses_.push_back(SentResponse{address, response});
    changed_.notify_all();
    return core::success();
  }

  core::Result<void> send_event(const ipc::Event& event) override {
    std::lock_guard lock(mutex_);
    if (auto failure = take_failure(fail_next_send_)) {
      return std::move(*failure);
    }
    events_.push_back(event);
    changed_.notify_all();
    return core::success();
  }

  core::Result<void> connect(ipc::Address address) override {
    std::lock_guard lock(mutex_);
    if (auto failure = take_failure(fail_next_connect_)) {
      return std::move(*failure);
    }
    connected_.push_back(address);
    return core::success();
  }

  core::Result<ipc::Response> request(ipc::Address address, ipc::Request request,
                                      std::chrono::milliseconds timeout) override {
    std::lock_guard lock(mutex_);
    requests_.push_back(SentRequest{address, std::move(request), timeout});
    if (auto failure = take_failure(fail_next_send_)) {
      return std::move(*failure);
    }
    if (!next_answer_) {
      // Nobody answers: the same outcome as a real endpoint whose wait timed out.
      return core::ErrorPayload(core::Error::InvalidState, "request timed out");
    }
    ipc::Response answer = std::move(*next_answer_);
    next_answer_.reset();
    return answer;
  }

  [[nodiscard]] ipc::Address address() const override { return own_address_; }

  // --- What a test drives -----------------------------------------------------------------

  /// Makes the next send_response, send_event or request fail with this error (once).
  void fail_next_send(core::Error error = core::Error::CommonError) {
    std::lock_guard lock(mutex_);
    fail_next_send_ = error;
  }

  /// Makes the next subscribe_request or subscribe_event fail with this error (once).
  void fail_next_subscribe(core::Error error = core::Error::CommonError) {
    std::lock_guard lock(mutex_);
    fail_next_subscribe_ = error;
  }

  /// Makes the next connect fail with this error (once).
  void fail_next_connect(core::Error error = core::Error::CommonError) {
    std::lock_guard lock(mutex_);
    fail_next_connect_ = error;
  }

  /// The response the next request() returns; without one, request() times out.
  void answer_next_request(ipc::Response response) {
    std::lock_guard lock(mutex_);
    next_answer_ = std::move(response);
  }

  /// Hands a request to the handler subscribed for its key (group, id) and returns the
  /// handler's result; Error::Empty when no handler is subscribed for that key.
  core::Result<void> inject_request(const ipc::Request& request) {
    ipc::RequestHandler handler;
    {
      std::lock_guard lock(mutex_);
      const auto found = request_handlers_.find(ipc::Key{request.group, request.id});
      if (found == request_handlers_.end()) {
        return core::ErrorPayload(core::Error::Empty, "no handler for the injected request");
      }
      handler = found->second;
    }
    return handler(request);
  }

  /// Hands an event to the handler subscribed for its exact key or, failing that, for its
  /// whole group; Error::Empty when neither is subscribed.
  core::Result<void> inject_event(const ipc::Event& event) {
    ipc::EventHandler handler;
    {
      std::lock_guard lock(mutex_);
      auto found = event_handlers_.find(ipc::Key{event.group, event.id});
      if (found == event_handlers_.end()) {
        found = event_handlers_.find(ipc::Key{event.group, ipc::kAnyId});
      }
      if (found == event_handlers_.end()) {
        return core::ErrorPayload(core::Error::Empty, "no handler for the injected event");
      }
      handler = found->second;
    }
    return handler(event);
  }

  /// Whether a request handler is subscribed for the key.
  [[nodiscard]] bool has_request_subscription(ipc::Key key) const {
    std::lock_guard lock(mutex_);
    return request_handlers_.contains(key);
  }

  /// Whether an event handler is subscribed for the key.
  [[nodiscard]] bool has_event_subscription(ipc::Key key) const {
    std::lock_guard lock(mutex_);
    return event_handlers_.contains(key);
  }

  /// The keys with a request handler, in key order.
  [[nodiscard]] std::vector<ipc::Key> request_subscriptions() const {
    std::lock_guard lock(mutex_);
    return keys_of(request_handlers_);
  }

  /// The keys with an event handler, in key order.
  [[nodiscard]] std::vector<ipc::Key> event_subscriptions() const {
    std::lock_guard lock(mutex_);
    return keys_of(event_handlers_);
  }

  /// How many subscribe_request/subscribe_event calls were made (failed ones included).
  [[nodiscard]] std::size_t subscribe_calls() const {
    std::lock_guard lock(mutex_);
    return subscribe_calls_;
  }

  /// How many unsubscribe_request/unsubscribe_event calls were made (failed ones included).
  [[nodiscard]] std::size_t unsubscribe_calls() const {
    std::lock_guard lock(mutex_);
    return unsubscribe_calls_;
  }

  /// Every response sent successfully so far, in order.
  [[nodiscard]] std::vector<SentResponse> responses() const {
    std::lock_guard lock(mutex_);
    return responses_;
  }

  /// Every event sent successfully so far, in order.
  [[nodiscard]] std::vector<ipc::Event> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }

  /// Every address connected successfully so far, in order.
  [[nodiscard]] std::vector<ipc::Address> connected() const {
    std::lock_guard lock(mutex_);
    return connected_;
  }

  /// Every request made so far, in order (failed ones included).
  [[nodiscard]] std::vector<SentRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

  /// Waits until at least `count` events were sent; false when the time ran out first.
  bool wait_for_events(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
  }

  /// Waits until at least `count` responses were sent; false when the time ran out first.
  bool wait_for_responses(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return responses_.size() >= count; });
  }

  /// Forgets the sent responses, events, connections and requests (subscriptions stay).
  void clear_sent() {
    std::lock_guard lock(mutex_);
    responses_.clear();
    events_.clear();
    connected_.clear();
    requests_.clear();
  }

 private:
  static std::optional<core::ErrorPayload> take_failure(std::optional<core::Error>& armed) {
    if (!armed) {
      return std::nullopt;
    }
    core::ErrorPayload failure(*armed, std::string("injected failure"));
    armed.reset();
    return failure;
  }

  template <typename Map>
  static std::vector<ipc::Key> keys_of(const Map& handlers) {
    std::vector<ipc::Key> keys;
    keys.reserve(handlers.size());
    for (const auto& entry : handlers) {
      keys.push_back(entry.first);
    }
    return keys;
  }

  const ipc::Address own_address_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::map<ipc::Key, ipc::RequestHandler> request_handlers_;
  std::map<ipc::Key, ipc::EventHandler> event_handlers_;
  std::vector<SentResponse> responses_;
  std::vector<ipc::Event> events_;
  std::vector<ipc::Address> connected_;
  std::vector<SentRequest> requests_;
  std::optional<ipc::Response> next_answer_;
  std::optional<core::Error> fail_next_send_;
  std::optional<core::Error> fail_next_subscribe_;
  std::optional<core::Error> fail_next_connect_;
  std::size_t subscribe_calls_ = 0;
  std::size_t unsubscribe_calls_ = 0;
};

}  // namespace xpon::test
