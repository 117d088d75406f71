#pragma once

// The sockets of the crate transport: an XPUB on the board's crate address that the other boards
// subscribe to, one SUB per peer, their monitors and, with CURVE, the ZAP handler that admits
// only the peers' keys.

#include "crate.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>
#include <zmq.hpp>

namespace xpon::ipc_bus {

/// What the crate transport has done since the bus started.
struct CrateStats {
  std::uint64_t sent = 0;            ///< local events published to the crate
  std::uint64_t received = 0;        ///< events from peers delivered on this board
  std::uint64_t replayed = 0;        ///< cached events handed to a peer that subscribed
  std::uint64_t replayed_local = 0;  ///< cached events published again for a local endpoint that subscribed
  std::uint64_t foreign_slot = 0;    ///< crate-wide local events kept here: their source names another slot
  std::uint64_t refused = 0;         ///< messages from peers dropped: malformed, or a key that is not crate-wide
  std::uint64_t refused_peers = 0;   ///< connections whose CURVE key is not one of the peers'
};

class CrateLink {
 public:
  using Say = std::function<void(const std::string&)>;

  /// Binds the crate XPUB and connects to every peer; throws zmq::error_t or std::runtime_error.
  CrateLink(zmq::context_t& context, CrateConfig config, Say say);
  CrateLink(const CrateLink&) = delete;
  CrateLink& operator=(const CrateLink&) = delete;
  ~CrateLink();

  /// The sockets to poll for input, in the order service() expects them back.
  [[nodiscard]] std::vector<zmq::pollitem_t> poll_items();

  /// Serves the sockets whose poll items (as returned by poll_items, with their revents) are
  /// ready, or with `all` every one: subscriptions, peers' events (delivered to `local`),
  /// monitors, ZAP requests. True if a peer's batch was full: then it is to be called again, with
  /// `all`, before the next wait.
  bool service(const zmq::pollitem_t* items, zmq::socket_t& local, bool all);

  /// Hands a local event (its three frames as forwarded on this board) to the crate when its key
  /// is crate-wide.
  void offer(const std::vector<zmq::message_t>& frames);

  /// Takes a subscription message of the board's bus.sub (with ZMQ_XPUB_VERBOSE, one for every
  /// endpoint that subscribes): when it names one crate-wide key, the newest event of that key of
  /// every sender slot seen on this board is published again on `local`, so that an endpoint that
  /// (re)starts learns the crate's states.
  void local_subscription(const zmq::message_t& message, zmq::socket_t& local);

  [[nodiscard]] const CrateStats& stats() const { return stats_; }

 private:
  struct Monitor {
    zmq::socket_t socket;
    std::string what;      ///< the peer's address, or empty for the XPUB
    bool failing = false;  ///< its last handshake failed (said once until one succeeds)
  };

  void serve_subscriptions();
  bool serve_peer(zmq::socket_t& sub, zmq::socket_t& local);
  void serve_monitor(Monitor& monitor);
  void serve_zap();
  Monitor watch(zmq::socket_t& socket, const std::string& what, int events);
  void send_frames(const LateJoinerCache::Frames& frames);

  zmq::context_t& context_;
  CrateConfig config_;
  Say say_;
  std::unique_ptr<zmq::socket_t> zap_;
  zmq::socket_t publisher_;
  std::vector<zmq::socket_t> subscribers_;
  std::vector<Monitor> monitors_;
  std::map<int, std::string> connections_;  ///< the remote address of each accepted descriptor
  std::set<Z85Key> peer_keys_;
  LateJoinerCache cache_;        ///< this board's own crate-wide events, for the peers
  LateJoinerCache local_cache_;  ///< every crate-wide event delivered on this board, for its endpoints
  CrateStats stats_;
  int monitor_count_ = 0;
  bool published_ = false;  ///< offer() sent on the XPUB, which may have taken its notice of subscriptions
};

}  // namespace xpon::ipc_bus
