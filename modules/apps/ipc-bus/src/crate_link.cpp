#include "crate_link.hpp"

#include "xpon/ipc/wire.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fmt/format.h>

#include <array>
#include <cstring>
#include <span>
#include <utility>
#include <zmq_addon.hpp>

// Libzmq 4.3 has the option in every build; its header lists it among the draft ones only.
#ifndef ZMQ_XPUB_MANUAL_LAST_VALUE
#define ZMQ_XPUB_MANUAL_LAST_VALUE 98
#endif

namespace xpon::ipc_bus {

namespace {

constexpr int kQueueDepth = 100000;
constexpr std::int64_t kMaxMessage = std::int64_t{1024} * 1024;
// A peer that vanishes without closing its connection (power cut, cable pulled) is noticed within
// three seconds; ZeroMQ then reconnects as after any other loss.
constexpr int kHeartbeatIntervalMs = 1000;
constexpr int kHeartbeatTimeoutMs = 3000;
constexpr int kReconnectMs = 100;
constexpr int kReconnectMaxMs = 2000;
constexpr const char* kZapEndpoint = "inproc://zeromq.zap.01";

std::span<const std::uint8_t> bytes(const zmq::message_t& message) {
  return {static_cast<const std::uint8_t*>(message.data()), message.size()};
}

/// The key and the header of a well-formed event, or nullopt.
std::optional<std::pair<ipc::Key, ipc::wire::Header>> decode_event(const std::vector<zmq::message_t>& frames) {
  if (frames.size() != 3) {
    return std::nullopt;
  }
  const auto key = ipc::wire::decode_topic(bytes(frames[0]));
  const auto decoded = ipc::wire::decode_header(bytes(frames[1]));
  if (!key || !decoded.header || decoded.header->kind != ipc::wire::Kind::Event ||
      decoded.header->group != key->group || decoded.header->id != key->id ||
      frames[2].size() > ipc::wire::kMaxPayload) {
    return std::nullopt;
  }
  return std::make_pair(*key, *decoded.header);
}

std::string remote_of(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return "an unknown address";
  }
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (address.ss_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
    ::inet_ntop(AF_INET, &v4->sin_addr, text.data(), text.size());
    return fmt::format("{}:{}", text.data(), ntohs(v4->sin_port));
  }
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
  ::inet_ntop(AF_INET6, &v6->sin6_addr, text.data(), text.size());
  return fmt::format("[{}]:{}", text.data(), ntohs(v6->sin6_port));
}

LateJoinerCache::Frames copy_of(const std::vector<zmq::message_t>& frames) {
  LateJoinerCache::Frames copy;
  copy.reserve(frames.size());
  for (const auto& frame : frames) {
    const auto data = bytes(frame);
    copy.emplace_back(data.begin(), data.end());
  }
  return copy;
}

void common_options(zmq::socket_t& socket) {
  socket.set(zmq::sockopt::linger, 0);
  socket.set(zmq::sockopt::maxmsgsize, kMaxMessage);
  socket.set(zmq::sockopt::heartbeat_ivl, kHeartbeatIntervalMs);
  socket.set(zmq::sockopt::heartbeat_timeout, kHeartbeatTimeoutMs);
}

}  // namespace

CrateLink::CrateLink(zmq::context_t& context, CrateConfig config, Say say)
    : context_(context),
      config_(std::move(config)),
      say_(std::move(say)),
      publisher_(context, zmq::socket_type::xpub),
      cache_(config_.states),
      local_cache_(config_.states) {
  if (config_.curve) {
    if (zmq_has("curve") == 0) {
      throw std::runtime_error("crate: [curve] is configured but this ZeroMQ has no CURVE");
    }
    for (const auto& peer : config_.peers) {
      peer_keys_.insert(peer.public_key.value());
    }
    // The handler must be bound before the first CURVE handshake, or ZeroMQ admits every client.
    zap_ = std::make_unique<zmq::socket_t>(context_, zmq::socket_type::rep);
    zap_->set(zmq::sockopt::linger, 0);
    zap_->bind(kZapEndpoint);
  }

  common_options(publisher_);
  publisher_.set(zmq::sockopt::sndhwm, kQueueDepth);
  // Manual subscriptions with "last value": after a peer's subscription is taken, the next message
  // sent goes to that peer alone. That is how a joining peer gets the cached events without the
  // peers already subscribed getting them twice (see docs/ipc-protocol.md).
  publisher_.set(zmq::sockopt::xpub_manual, true);
  const int last_value = 1;
  if (zmq_setsockopt(publisher_.handle(), ZMQ_XPUB_MANUAL_LAST_VALUE, &last_value, sizeof last_value) != 0) {
    throw zmq::error_t();
  }
  if (config_.curve) {
    publisher_.set(zmq::sockopt::curve_server, true);
    publisher_.set(zmq::sockopt::curve_secretkey, config_.curve->secret_key);
    publisher_.set(zmq::sockopt::zap_domain, "xpon-crate");
  }
  monitors_.push_back(watch(publisher_, {}, ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED));
  publisher_.bind(config_.listen);

  for (const auto& peer : config_.peers) {
    zmq::socket_t& sub = subscribers_.emplace_back(context_, zmq::socket_type::sub);
    common_options(sub);
    sub.set(zmq::sockopt::rcvhwm, kQueueDepth);
    sub.set(zmq::sockopt::reconnect_ivl, kReconnectMs);
    sub.set(zmq::sockopt::reconnect_ivl_max, kReconnectMaxMs);
    for (const auto& key : config_.keys) {
      const auto topic = ipc::wire::encode_topic(key);
      sub.set(zmq::sockopt::subscribe, zmq::const_buffer(topic.data(), topic.size()));
    }
    if (config_.curve) {
      sub.set(zmq::sockopt::curve_serverkey, peer.public_key.value());
      sub.set(zmq::sockopt::curve_publickey, config_.curve->public_key);
      sub.set(zmq::sockopt::curve_secretkey, config_.curve->secret_key);
    }
    monitors_.push_back(watch(sub, peer.address,
                              ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_HANDSHAKE_FAILED_AUTH |
                                  ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL | ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL));
    sub.connect(peer.address);
  }
  say_(fmt::format("crate: slot {} publishes {} key(s) on {} to {} peer(s), {}", config_.slot, config_.keys.size(),
                   config_.listen, config_.peers.size(),
                   config_.curve ? "CURVE" : (config_.insecure ? "insecure: no CURVE" : "no CURVE (local only)")));
}

CrateLink::~CrateLink() {
  for (auto& sub : subscribers_) {
    sub.close();
  }
  publisher_.close();
  for (auto& monitor : monitors_) {
    monitor.socket.close();
  }
  if (zap_) {
    zap_->close();
  }
}

CrateLink::Monitor CrateLink::watch(zmq::socket_t& socket, const std::string& what, int events) {
  const std::string endpoint = fmt::format("inproc://crate-monitor-{}", monitor_count_++);
  if (zmq_socket_monitor(socket.handle(), endpoint.c_str(), events) != 0) {
    throw zmq::error_t();
  }
  Monitor monitor{zmq::socket_t(context_, zmq::socket_type::pair), what, false};
  monitor.socket.set(zmq::sockopt::linger, 0);
  monitor.socket.connect(endpoint);
  return monitor;
}

std::vector<zmq::pollitem_t> CrateLink::poll_items() {
  std::vector<zmq::pollitem_t> items;
  items.push_back({publisher_.handle(), 0, ZMQ_POLLIN, 0});
  for (auto& sub : subscribers_) {
    items.push_back({sub.handle(), 0, ZMQ_POLLIN, 0});
  }
  for (auto& monitor : monitors_) {
    items.push_back({monitor.socket.handle(), 0, ZMQ_POLLIN, 0});
  }
  if (zap_) {
    items.push_back({zap_->handle(), 0, ZMQ_POLLIN, 0});
  }
  return items;
}

bool CrateLink::service(const zmq::pollitem_t* items, zmq::socket_t& local, bool all) {
  const auto ready = [&](std::size_t index) { return all || (items[index].revents & ZMQ_POLLIN) != 0; };
  std::size_t index = 0;
  if (ready(index++) || std::exchange(published_, false)) {
    serve_subscriptions();
  }
  bool more = false;
  for (auto& sub : subscribers_) {
    if (ready(index++)) {
      more = serve_peer(sub, local) || more;
    }
  }
  for (auto& monitor : monitors_) {
    if (ready(index++)) {
      serve_monitor(monitor);
    }
  }
  if (zap_ && ready(index)) {
    serve_zap();
  }
  return more;
}

void CrateLink::send_frames(const LateJoinerCache::Frames& frames) {
  for (std::size_t i = 0; i < frames.size(); ++i) {
    publisher_.send(zmq::buffer(frames[i]), i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
  }
}

void CrateLink::serve_subscriptions() {
  zmq::message_t message;
  while (publisher_.recv(message, zmq::recv_flags::dontwait)) {
    const auto data = bytes(message);
    if (!data.empty() && (data[0] == 0 || data[0] == 1)) {
      const zmq::const_buffer topic(data.data() + 1, data.size() - 1);
      if (data[0] == 1) {
        publisher_.set(zmq::sockopt::subscribe, topic);
        const auto key = ipc::wire::decode_topic(data.subspan(1));
        const auto* cached = key ? cache_.find(config_.slot, *key) : nullptr;
        if (cached != nullptr) {
          send_frames(*cached);  // to the peer that subscribed, only
          ++stats_.replayed;
          continue;
        }
      } else {
        publisher_.set(zmq::sockopt::unsubscribe, topic);
      }
    }
    // Nothing to hand over: an empty message, which no peer subscribes to, spends the "last value"
    // turn, so that the next event goes to every subscriber again.
    publisher_.send(zmq::message_t(), zmq::send_flags::none);
  }
}

bool CrateLink::serve_peer(zmq::socket_t& sub, zmq::socket_t& local) {
  std::vector<zmq::message_t> frames;
  for (int i = 0; i < 1024; ++i) {
    frames.clear();
    if (!zmq::recv_multipart(sub, std::back_inserter(frames), zmq::recv_flags::dontwait)) {
      return false;
    }
    const auto event = decode_event(frames);
    if (!event || !decide_forwarding(Origin::Crate, event->first, event->second.source, config_).to_local) {
      ++stats_.refused;
      continue;
    }
    local_cache_.remember(static_cast<std::uint16_t>(event->second.source & 0xFFFFU), event->first, copy_of(frames));
    local.send(frames[0], zmq::send_flags::sndmore);
    local.send(frames[1], zmq::send_flags::sndmore);
    local.send(frames[2], zmq::send_flags::none);
    ++stats_.received;
  }
  return true;
}

void CrateLink::offer(const std::vector<zmq::message_t>& frames) {
  const auto event = decode_event(frames);
  if (!event) {
    return;
  }
  const auto& [key, header] = *event;
  const Forwarding forwarding = decide_forwarding(Origin::Local, key, header.source, config_);
  if (config_.keys.contains(key)) {
    local_cache_.remember(static_cast<std::uint16_t>(header.source & 0xFFFFU), key, copy_of(frames));
  }
  if (forwarding.foreign_slot) {
    ++stats_.foreign_slot;
    if (stats_.foreign_slot == 1) {
      say_(fmt::format("crate: event {}:{} from 0x{:08x} kept on this board: its slot is not this board's ({})",
                       key.group, key.id, header.source, config_.slot));
    }
    return;
  }
  if (!forwarding.to_crate) {
    return;
  }
  LateJoinerCache::Frames copy = copy_of(frames);
  if (forwarding.fill_in_slot) {
    auto with_slot = header;
    with_slot.source = crate_source(header.source, config_.slot);
    const auto encoded = ipc::wire::encode_header(with_slot);
    copy[1].assign(encoded.begin(), encoded.end());
  }
  send_frames(copy);
  published_ = true;
  ++stats_.sent;
  cache_.remember(config_.slot, key, std::move(copy));
}

void CrateLink::local_subscription(const zmq::message_t& message, zmq::socket_t& local) {
  const auto data = bytes(message);
  if (data.size() != 1 + ipc::wire::kTopicSize || data[0] != 1) {
    return;
  }
  const auto key = ipc::wire::decode_topic(data.subspan(1));
  if (!key || !config_.keys.contains(*key)) {
    return;
  }
  // Published to every endpoint subscribed to the key, the one that just joined included: the
  // others see a state they already have again, which changes nothing for them.
  for (const auto* frames : local_cache_.with_key(*key)) {
    for (std::size_t i = 0; i < frames->size(); ++i) {
      local.send(zmq::buffer((*frames)[i]), i + 1 < frames->size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
    }
    ++stats_.replayed_local;
  }
}

void CrateLink::serve_monitor(Monitor& monitor) {
  std::vector<zmq::message_t> frames;
  while (zmq::recv_multipart(monitor.socket, std::back_inserter(frames), zmq::recv_flags::dontwait)) {
    if (frames.size() != 2 || frames[0].size() < 6) {
      frames.clear();
      continue;
    }
    std::uint16_t event = 0;
    std::uint32_t value = 0;
    std::memcpy(&event, frames[0].data(), sizeof event);
    std::memcpy(&value, static_cast<const std::uint8_t*>(frames[0].data()) + 2, sizeof value);
    frames.clear();
    const auto fd = static_cast<int>(value);
    if (monitor.what.empty()) {
      if (event == ZMQ_EVENT_ACCEPTED) {
        connections_[fd] = remote_of(fd);
        say_(fmt::format("crate: connection from {}", connections_[fd]));
      } else if (event == ZMQ_EVENT_DISCONNECTED) {
        const auto found = connections_.find(fd);
        say_(fmt::format("crate: {} left", found == connections_.end() ? "a peer" : found->second));
        if (found != connections_.end()) {
          connections_.erase(found);
        }
      }
    } else if (event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
      monitor.failing = false;
      say_(fmt::format("crate: joined peer {}", monitor.what));
    } else if (event == ZMQ_EVENT_DISCONNECTED) {
      if (!monitor.failing) {
        say_(fmt::format("crate: peer {} went away; reconnecting", monitor.what));
      }
    } else if (!monitor.failing) {
      // Said once: ZeroMQ tries again every two seconds, and would fill the journal.
      monitor.failing = true;
      say_(fmt::format("crate: handshake with peer {} failed (wrong key?)", monitor.what));
    }
  }
}

void CrateLink::serve_zap() {
  std::vector<zmq::message_t> request;
  while (zmq::recv_multipart(*zap_, std::back_inserter(request), zmq::recv_flags::dontwait)) {
    // ZAP 1.0: version, request id, domain, address, routing id, mechanism, credentials.
    bool allowed = false;
    std::string address = "?";
    if (request.size() >= 7 && request[5].to_string_view() == "CURVE" && request[6].size() == 32) {
      address = request[3].to_string();
      std::array<char, 41> key{};
      zmq_z85_encode(key.data(), static_cast<const std::uint8_t*>(request[6].data()), 32);
      allowed = peer_keys_.contains(key.data());
      if (!allowed) {
        ++stats_.refused_peers;
        say_(fmt::format("crate: refused {}: its key {} is not one of the peers'", address, key.data()));
      }
    }
    const std::array<std::string, 6> reply{"1.0",
                                           request.size() > 1 ? request[1].to_string() : std::string{},
                                           allowed ? "200" : "400",
                                           allowed ? "OK" : "not a peer of the crate",
                                           allowed ? address : std::string{},
                                           std::string{}};
    for (std::size_t i = 0; i < reply.size(); ++i) {
      zap_->send(zmq::buffer(reply[i]), i + 1 < reply.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
    }
    request.clear();
  }
}

}  // namespace xpon::ipc_bus
