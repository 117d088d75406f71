#include "xpon/tool/bus_watch.hpp"

#include "xpon/core/file_descriptor.hpp"
#include "xpon/ipc/paths.hpp"
#include "xpon/ipc/wire.hpp"
#include "xpon/tool/console.hpp"

#include <sys/signalfd.h>

#include <fmt/format.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <array>
#include <iterator>
#include <optional>
#include <stdexcept>

namespace xpon::tool {

namespace {

namespace wire = ipc::wire;

/// The event in three frames (topic, header, payload), or nullopt with `what` said about the message.
std::optional<ipc::Event> to_event(const std::vector<zmq::message_t>& frames, bool strict, std::string& what) {
  const bool three = frames.size() == 3;
  const auto decoded =
      three ? wire::decode_header({frames[1].data<std::uint8_t>(), frames[1].size()}) : wire::Decoded{};
  bool good = three && decoded.header && decoded.header->kind == wire::Kind::Event;
  if (good && strict) {
    good = wire::decode_topic({frames[0].data<std::uint8_t>(), frames[0].size()}).has_value() &&
           frames[2].size() <= wire::kMaxPayload;
  }
  if (!good) {
    what = fmt::format(
        "{} frames{}", frames.size(),
        three && !decoded.header ? ", " + std::string(wire::decode_error_name(decoded.error)) : std::string());
    return std::nullopt;
  }
  return wire::to_event(*decoded.header, {frames[2].data<std::uint8_t>(), frames[2].size()});
}

}  // namespace

WatchResult watch_bus(const WatchOptions& options, const EventHandler& on_event, const MalformedHandler& on_malformed) {
  const sigset_t signals = stop_signals();
  // Closed however the watch ends.
  const core::FileDescriptor signal_fd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signal_fd) {
    throw std::runtime_error("cannot watch for SIGINT and SIGTERM (signalfd failed)");
  }
  ipc::ensure_ipc_directory();
  zmq::context_t context(1);
  zmq::socket_t subscriber(context, zmq::socket_type::sub);
  subscriber.set(zmq::sockopt::linger, 0);
  subscriber.set(zmq::sockopt::maxmsgsize, options.max_message_size);
  if (options.keys.empty()) {
    subscriber.set(zmq::sockopt::subscribe, "");
  }
  for (const auto key : options.keys) {
    std::size_t length = 0;
    const auto prefix = wire::subscription_prefix(key, length);
    subscriber.set(zmq::sockopt::subscribe, zmq::const_buffer(prefix.data(), length));
  }
  subscriber.connect(ipc::bus_sub_endpoint());

  std::array<zmq::pollitem_t, 2> items{
      {{subscriber.handle(), 0, ZMQ_POLLIN, 0}, {nullptr, signal_fd.get(), ZMQ_POLLIN, 0}}};
  const auto deadline = std::chrono::steady_clock::now() + options.timeout;
  WatchResult result;
  std::vector<zmq::message_t> frames;
  std::string what;
  while (options.count == 0 || result.seen < options.count) {
    auto wait = std::chrono::milliseconds(-1);
    if (options.timeout.count() > 0) {
      wait = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (wait.count() <= 0) {
        result.end = WatchEnd::TimedOut;
        return result;
      }
    }
    zmq::poll(items.data(), items.size(), wait);
    if ((items[1].revents & ZMQ_POLLIN) != 0) {
      result.end = WatchEnd::Stopped;
      return result;
    }
    if ((items[0].revents & ZMQ_POLLIN) == 0) {
      continue;
    }
    frames.clear();
    if (!zmq::recv_multipart(subscriber, std::back_inserter(frames), zmq::recv_flags::dontwait)) {
      continue;
    }
    const auto event = to_event(frames, options.strict, what);
    if (!event) {
      on_malformed(what);
      continue;
    }
    on_event(*event);
    ++result.seen;
  }
  result.end = WatchEnd::Counted;
  return result;
}

}  // namespace xpon::tool
