#include "crate.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <toml++/toml.h>

#include <zmq.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>

namespace xpon::ipc_bus {

namespace {

constexpr std::size_t kZ85KeySize = 40;

template <typename... Args>
[[noreturn]] void fail(const std::string& path, fmt::format_string<Args...> format, Args&&... args) {
  throw CrateConfigError(
      fmt::format("crate configuration {}: {}", path, fmt::format(format, std::forward<Args>(args)...)));
}

std::optional<std::uint32_t> parse_number(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
    base = 16;
  }
  std::uint32_t value = 0;
  const auto* end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, value, base);
  if (text.empty() || error != std::errc{} || last != end) {
    return std::nullopt;
  }
  return value;
}

bool read_bool(const toml::node& node, const std::string& path, std::string_view name) {
  const auto* value = node.as_boolean();
  if (value == nullptr) {
    fail(path, "{} must be true or false", name);
  }
  return value->get();
}

std::string read_string(const toml::node& node, const std::string& path, std::string_view name) {
  const auto* value = node.as_string();
  if (value == nullptr) {
    fail(path, "{} must be a string", name);
  }
  return value->get();
}

std::string read_tcp_address(const toml::node& node, const std::string& path, std::string_view name) {
  std::string address = read_string(node, path, name);
  if (!split_tcp_address(address)) {
    fail(path, "{} \"{}\" is not tcp://host:port (port 1 to 65535)", name, address);
  }
  return address;
}

CratePeer read_peer(const toml::node& node, const std::string& path, std::size_t index) {
  const std::string name = fmt::format("peers[{}]", index);
  CratePeer peer;
  if (node.is_string()) {
    peer.address = read_tcp_address(node, path, name);
    return peer;
  }
  const auto* table = node.as_table();
  if (table == nullptr) {
    fail(path, "{} must be an address or a table with address and public_key", name);
  }
  for (const auto& [key, value] : *table) {
    const std::string_view field = key.str();
    if (field == "address") {
      peer.address = read_tcp_address(value, path, name + ".address");
    } else if (field == "public_key") {
      peer.public_key_file = read_string(value, path, name + ".public_key");
    } else {
      fail(path, "unknown key {}.{}", name, field);
    }
  }
  if (peer.address.empty()) {
    fail(path, "{} has no address", name);
  }
  return peer;
}

std::set<ipc::Key> read_keys(const toml::node& node, const std::string& path, std::string_view name = "keys") {
  const auto* array = node.as_array();
  if (array == nullptr) {
    fail(path, "{} must be a list of \"GROUP:ID\" strings", name);
  }
  std::set<ipc::Key> keys;
  for (const auto& element : *array) {
    const auto* text = element.as_string();
    const auto key = text == nullptr ? std::nullopt : parse_key(text->get());
    if (!key) {
      fail(path, "{}: \"{}\" is not GROUP:ID (numbers up to 65535)", name, text == nullptr ? "?" : text->get());
    }
    if (key->id == ipc::kAnyId) {
      fail(path, "{}: \"{}\" names no single event (id 65535 is the whole group)", name, text->get());
    }
    keys.insert(*key);
  }
  return keys;
}

StateKeys read_states(const toml::node& node, const std::string& path) {
  const auto* array = node.as_array();
  if (array == nullptr) {
    fail(path, "states must be a list of lists of \"GROUP:ID\" strings");
  }
  StateKeys states;
  std::set<ipc::Key> seen;
  for (const auto& element : *array) {
    if (!element.is_array()) {
      fail(path, "states must be a list of lists of \"GROUP:ID\" strings");
    }
    std::set<ipc::Key> state = read_keys(element, path, "states");
    if (state.size() < 2) {
      fail(path, "states: a state needs at least two keys");
    }
    for (const auto& key : state) {
      if (!seen.insert(key).second) {
        fail(path, "states: {}:{} is in more than one state", key.group, key.id);
      }
    }
    states.push_back(std::move(state));
  }
  return states;
}

CrateKeys read_curve(const toml::node& node, const std::string& path, std::string& public_file,
                     std::string& secret_file) {
  const auto* table = node.as_table();
  if (table == nullptr) {
    fail(path, "curve must be a table with public_key and secret_key");
  }
  for (const auto& [key, value] : *table) {
    const std::string_view field = key.str();
    if (field == "public_key") {
      public_file = read_string(value, path, "curve.public_key");
    } else if (field == "secret_key") {
      secret_file = read_string(value, path, "curve.secret_key");
    } else {
      fail(path, "unknown key curve.{}", field);
    }
  }
  if (public_file.empty() || secret_file.empty()) {
    fail(path, "curve needs both public_key and secret_key");
  }
  return CrateKeys{read_key_file(public_file), read_key_file(secret_file)};
}

std::string read_whole_file(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) {
    throw CrateConfigError(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  }
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

bool is_local_ipv4(const in_addr& address) {
  const std::uint32_t host = ntohl(address.s_addr);
  return (host >> 24U) == 127U || (host >> 16U) == 0xA9FEU;  // 127.0.0.0/8, 169.254.0.0/16
}

bool is_local_ipv6(const in6_addr& address) {
  if (IN6_IS_ADDR_LOOPBACK(&address) || IN6_IS_ADDR_LINKLOCAL(&address)) {
    return true;
  }
  if (IN6_IS_ADDR_V4MAPPED(&address)) {
    in_addr v4{};
    std::memcpy(&v4, &address.s6_addr[12], sizeof v4);
    return is_local_ipv4(v4);
  }
  return false;
}

void write_private_file(const std::string& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    throw std::runtime_error(fmt::format("cannot write {}: {}", path, std::strerror(errno)));
  }
  // An existing file keeps its mode on open; the key must not stay readable by others.
  const bool written =
      ::fchmod(fd, 0600) == 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int saved = errno;
  ::close(fd);
  if (!written) {
    throw std::runtime_error(fmt::format("cannot write {}: {}", path, std::strerror(saved)));
  }
}

}  // namespace

std::optional<ipc::Key> parse_key(std::string_view text) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  const auto group = parse_number(text.substr(0, colon));
  const auto id = parse_number(text.substr(colon + 1));
  if (!group || !id || *group > 0xFFFFU || *id > 0xFFFFU) {
    return std::nullopt;
  }
  return ipc::Key{static_cast<std::uint16_t>(*group), static_cast<std::uint16_t>(*id)};
}

std::optional<std::pair<std::string, std::uint16_t>> split_tcp_address(std::string_view address) {
  constexpr std::string_view kScheme = "tcp://";
  if (!address.starts_with(kScheme)) {
    return std::nullopt;
  }
  address.remove_prefix(kScheme.size());
  const auto colon = address.rfind(':');
  if (colon == std::string_view::npos || colon == 0) {
    return std::nullopt;
  }
  std::string_view host = address.substr(0, colon);
  if (host.starts_with('[')) {
    if (!host.ends_with(']') || host.size() < 3) {
      return std::nullopt;
    }
    host = host.substr(1, host.size() - 2);
  }
  const auto port = parse_number(address.substr(colon + 1));
  if (!port || *port == 0 || *port > 0xFFFFU || host.empty()) {
    return std::nullopt;
  }
  return std::make_pair(std::string(host), static_cast<std::uint16_t>(*port));
}

bool is_local_only_host(std::string_view host) {
  if (host == "localhost" || host == "lo") {
    return true;
  }
  const std::string text(host);
  in_addr v4{};
  if (::inet_pton(AF_INET, text.c_str(), &v4) == 1) {
    return is_local_ipv4(v4);
  }
  in6_addr v6{};
  // A zone ("fe80::1%eth1") names the interface of a link-local address.
  const std::string without_zone = text.substr(0, text.find('%'));
  if (::inet_pton(AF_INET6, without_zone.c_str(), &v6) == 1) {
    return is_local_ipv6(v6);
  }
  return false;  // an interface name or "*": any address the board has
}

std::string listen_refusal(const CrateConfig& config) {
  if (!config.enabled || config.curve || config.insecure) {
    return {};
  }
  const auto host = split_tcp_address(config.listen);
  if (host && is_local_only_host(host->first)) {
    return {};
  }
  return fmt::format(
      "refusing to listen on {} without CURVE keys: any host of that network could read the crate's events and "
      "inject its own; name the board's keys in [curve] or set insecure = true",
      config.listen);
}

Z85Key read_key_file(const std::string& path) {
  std::string text;
  try {
    text = read_whole_file(path);
  } catch (const CrateConfigError& error) {
    throw CrateConfigError(fmt::format("crate key file: {}", error.what()));
  }
  const auto first = text.find_first_not_of(" \t\r\n");
  const auto last = text.find_last_not_of(" \t\r\n");
  std::string key = first == std::string::npos ? std::string{} : text.substr(first, last - first + 1);
  std::array<std::uint8_t, 32> decoded{};
  if (key.size() != kZ85KeySize || zmq_z85_decode(decoded.data(), key.c_str()) == nullptr) {
    throw CrateConfigError(fmt::format("crate key file {}: not a key of 40 Z85 characters", path));
  }
  return key;
}

std::pair<std::string, std::string> generate_key_files(const std::string& directory) {
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    throw std::runtime_error(fmt::format("cannot make {}: {}", directory, std::strerror(errno)));
  }
  std::array<char, kZ85KeySize + 1> public_key{};
  std::array<char, kZ85KeySize + 1> secret_key{};
  if (zmq_curve_keypair(public_key.data(), secret_key.data()) != 0) {
    throw std::runtime_error(
        fmt::format("cannot make a CURVE key pair: {} (is ZeroMQ built with libsodium?)", zmq_strerror(zmq_errno())));
  }
  const std::string public_path = directory + "/board.pub";
  const std::string secret_path = directory + "/board.key";
  write_private_file(secret_path, std::string(secret_key.data()) + "\n");
  write_private_file(public_path, std::string(public_key.data()) + "\n");
  return {public_path, secret_path};
}

CrateConfig parse_crate_config(std::string_view text, const std::string& path) {
  toml::table document;
  try {
    document = toml::parse(text, path);
  } catch (const toml::parse_error& error) {
    fail(path, "syntax error at line {}, column {}: {}", error.source().begin.line, error.source().begin.column,
         error.description());
  }
  CrateConfig config;
  bool has_slot = false;
  std::string public_file;
  std::string secret_file;
  const toml::node* curve = nullptr;
  for (const auto& [key, value] : document) {
    const std::string_view name = key.str();
    if (name == "enabled") {
      config.enabled = read_bool(value, path, name);
    } else if (name == "insecure") {
      config.insecure = read_bool(value, path, name);
    } else if (name == "slot") {
      const auto* slot = value.as_integer();
      if (slot == nullptr || slot->get() < 0 || slot->get() >= ipc::kThisSlot) {
        fail(path, "slot must be a number from 0 to 65533");
      }
      config.slot = static_cast<std::uint16_t>(slot->get());
      has_slot = true;
    } else if (name == "listen") {
      config.listen = read_tcp_address(value, path, name);
    } else if (name == "peers") {
      const auto* peers = value.as_array();
      if (peers == nullptr) {
        fail(path, "peers must be a list");
      }
      for (std::size_t i = 0; i < peers->size(); ++i) {
        config.peers.push_back(read_peer(*peers->get(i), path, i));
      }
    } else if (name == "keys") {
      config.keys = read_keys(value, path);
    } else if (name == "states") {
      config.states = read_states(value, path);
    } else if (name == "curve") {
      curve = &value;
    } else {
      fail(path, "unknown key {}", name);
    }
  }
  if (!config.enabled) {
    return config;
  }
  if (!has_slot) {
    fail(path, "slot is missing");
  }
  if (config.listen.empty()) {
    fail(path, "listen is missing");
  }
  if (curve != nullptr) {
    try {
      config.curve = read_curve(*curve, path, public_file, secret_file);
      for (std::size_t i = 0; i < config.peers.size(); ++i) {
        auto& peer = config.peers[i];
        if (peer.public_key_file.empty()) {
          fail(path, "peers[{}] ({}) has no public_key, which [curve] needs", i, peer.address);
        }
        peer.public_key = read_key_file(peer.public_key_file);
      }
    } catch (const CrateConfigError& error) {
      if (std::string_view(error.what()).starts_with("crate configuration")) {
        throw;
      }
      fail(path, "{}", error.what());
    }
  }
  return config;
}

CrateConfig load_crate_config(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 && errno == ENOENT) {
    return CrateConfig{};
  }
  std::string text;
  try {
    text = read_whole_file(path);
  } catch (const CrateConfigError& error) {
    fail(path, "{}", error.what());
  }
  return parse_crate_config(text, path);
}

ipc::Address crate_source(ipc::Address source, std::uint16_t board_slot) {
  if ((source & 0xFFFFU) == ipc::kThisSlot) {
    return (source & 0xFFFF0000U) | board_slot;
  }
  return source;
}

Forwarding decide_forwarding(Origin origin, ipc::Key key, ipc::Address source, const CrateConfig& config) {
  Forwarding forwarding;
  const bool crate_wide = config.enabled && config.keys.contains(key);
  if (origin == Origin::Crate) {
    // Delivered here only; sending it on would make every event go round the crate again.
    forwarding.to_local = crate_wide;
    return forwarding;
  }
  forwarding.to_local = true;
  if (!crate_wide) {
    return forwarding;
  }
  const auto slot = static_cast<std::uint16_t>(source & 0xFFFFU);
  if (slot == ipc::kThisSlot) {
    forwarding.to_crate = true;
    forwarding.fill_in_slot = true;
  } else if (slot == config.slot) {
    forwarding.to_crate = true;
  } else {
    forwarding.foreign_slot = true;
  }
  return forwarding;
}

ipc::Key LateJoinerCache::state_of(ipc::Key key) const {
  for (const auto& state : states_) {
    if (state.contains(key)) {
      return *state.begin();
    }
  }
  return key;
}

void LateJoinerCache::remember(std::uint16_t slot, ipc::Key key, Frames frames) {
  events_[{slot, state_of(key)}] = Entry{key, next_sequence_++, std::move(frames)};
}

const LateJoinerCache::Frames* LateJoinerCache::find(std::uint16_t slot, ipc::Key key) const {
  const auto found = events_.find({slot, state_of(key)});
  return found == events_.end() || found->second.key != key ? nullptr : &found->second.frames;
}

std::vector<const LateJoinerCache::Frames*> LateJoinerCache::with_key(ipc::Key key) const {
  std::vector<const Entry*> entries;
  for (const auto& [where, entry] : events_) {
    if (entry.key == key) {
      entries.push_back(&entry);
    }
  }
  std::sort(entries.begin(), entries.end(),
            [](const Entry* left, const Entry* right) { return left->sequence < right->sequence; });
  std::vector<const Frames*> frames;
  frames.reserve(entries.size());
  for (const Entry* entry : entries) {
    frames.push_back(&entry->frames);
  }
  return frames;
}

}  // namespace xpon::ipc_bus
