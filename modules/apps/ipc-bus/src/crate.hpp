#pragma once

// The crate transport of xpon-ipc-bus: its configuration, the decision which events cross
// between the boards of a crate, and the cache of the last crate-wide events a board published.
// The sockets that carry them are in crate_link.hpp.

#include "xpon/ipc/ipc.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace xpon::ipc_bus {

/// Where the configuration is read when no --crate-config is given.
inline constexpr std::string_view kDefaultCrateConfig = "/etc/xpon/crate.toml";

/// The keys that cross the crate unless the configuration names others: the two fan-rate events
/// of the system manager and the Election Manager's mastership event.
inline const std::set<ipc::Key> kDefaultCrateKeys{{15500, 15537}, {15500, 15538}, {14500, 14505}};

/// Keys that carry one state of their sender between them: the newest event of any of them
/// replaces the others. The two fan-rate events are one such state (a slot wants the maximum
/// rate, or no longer does).
using StateKeys = std::vector<std::set<ipc::Key>>;
inline const StateKeys kDefaultStateKeys{{{15500, 15537}, {15500, 15538}}};

/// A CURVE key as its 40 Z85 characters.
using Z85Key = std::string;

/// One other board of the crate.
struct CratePeer {
  std::string address;               ///< tcp://host:port of its crate XPUB
  std::optional<Z85Key> public_key;  ///< its CURVE public key (only with [curve])
  std::string public_key_file;       ///< where the public key was read, for messages
};

/// This board's CURVE key pair.
struct CrateKeys {
  Z85Key public_key;
  Z85Key secret_key;
};

/// The crate transport settings of one board.
struct CrateConfig {
  bool enabled = false;
  std::uint16_t slot = 0;
  std::string listen;
  std::vector<CratePeer> peers;
  std::set<ipc::Key> keys = kDefaultCrateKeys;
  StateKeys states = kDefaultStateKeys;
  bool insecure = false;
  std::optional<CrateKeys> curve;
};

/// A configuration file that cannot be used; the text names the file and the bad value.
class CrateConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads the configuration file; a missing file means the transport is off. Throws
/// CrateConfigError for a file that cannot be read or parsed, or a value out of place.
CrateConfig load_crate_config(const std::string& path);

/// Parses the text of a configuration file (`path` only names it in messages); key files named
/// in it are read. Throws CrateConfigError.
CrateConfig parse_crate_config(std::string_view text, const std::string& path);

/// Parses a key "GROUP:ID" (decimal or 0x hex, each at most 0xFFFF); nullopt when malformed.
std::optional<ipc::Key> parse_key(std::string_view text);

/// The host and port of a tcp:// address; nullopt when it is not tcp://host:port with a port from 1 to 65535.
std::optional<std::pair<std::string, std::uint16_t>> split_tcp_address(std::string_view address);

/// True when the host of a tcp:// address is a loopback or link-local address (or "localhost", "lo").
bool is_local_only_host(std::string_view host);

/// Why the board may not listen as configured (no keys, not local, not marked insecure); empty when it may.
std::string listen_refusal(const CrateConfig& config);

/// Reads a Z85 key file (40 characters, surrounding blanks ignored); throws CrateConfigError.
Z85Key read_key_file(const std::string& path);

/// Writes a new key pair into `directory` (made when missing, mode 0700) as board.pub and
/// board.key, both mode 0600; returns the two paths. Throws std::runtime_error.
std::pair<std::string, std::string> generate_key_files(const std::string& directory);

/// Where an event came from: an endpoint of this board (bus.in) or another board of the crate.
enum class Origin : std::uint8_t { Local, Crate };

/// What the bus does with one event.
struct Forwarding {
  bool to_local = false;      ///< publish on this board's bus.sub
  bool to_crate = false;      ///< publish to the other boards of the crate
  bool fill_in_slot = false;  ///< the source names "this board" (0xFFFE): the board's slot is put in its place
  bool foreign_slot = false;  ///< a crate-wide event whose source names another board's slot: kept on this board
};

/// The forwarding decision. Local events always reach the local subscribers; they go to the crate
/// when their key is crate-wide and their source slot is this board's (or "this board"). Events
/// from the crate are delivered locally when their key is crate-wide and never leave again, so
/// no event goes round the crate twice, however many boards it has.
Forwarding decide_forwarding(Origin origin, ipc::Key key, ipc::Address source, const CrateConfig& config);

/// The source word of an event as the crate sees it: a slot of 0xFFFE replaced by the board's slot.
ipc::Address crate_source(ipc::Address source, std::uint16_t board_slot);

/// The last crate-wide events, per sender slot and state: the frames (topic, header, payload) of
/// the newest event of each, handed to an endpoint that subscribes later. A key outside every set
/// of StateKeys is a state of its own.
class LateJoinerCache {
 public:
  using Frames = std::vector<std::vector<std::uint8_t>>;

  explicit LateJoinerCache(StateKeys states = kDefaultStateKeys) : states_(std::move(states)) {}

  /// Keeps this event as the newest of its sender slot and state, replacing an older one (also
  /// one of another key of the same state).
  void remember(std::uint16_t slot, ipc::Key key, Frames frames);

  /// The newest event of that slot's state when it has this key, or nullptr (nothing cached, or
  /// a newer event of another key of the state replaced it).
  [[nodiscard]] const Frames* find(std::uint16_t slot, ipc::Key key) const;

  /// The newest event of every slot whose state holds this key, oldest first.
  [[nodiscard]] std::vector<const Frames*> with_key(ipc::Key key) const;

  /// How many (slot, state) pairs are held.
  [[nodiscard]] std::size_t size() const { return events_.size(); }

 private:
  struct Entry {
    ipc::Key key;
    std::uint64_t sequence = 0;
    Frames frames;
  };

  /// The first key of the state set holding `key`, or `key` itself.
  [[nodiscard]] ipc::Key state_of(ipc::Key key) const;

  StateKeys states_;
  std::map<std::pair<std::uint16_t, ipc::Key>, Entry> events_;
  std::uint64_t next_sequence_ = 0;
};

}  // namespace xpon::ipc_bus
