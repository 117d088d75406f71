// xpon-ipc-bus: the event bus of a board. Publishers push events into bus.in; every event is
// forwarded unchanged (topic, header, payload) to the subscribers of bus.sub. With the crate
// transport configured, the crate-wide events also travel to and from the other boards of the
// crate (crate.hpp, crate_link.hpp).

#include "crate.hpp"
#include "crate_link.hpp"

#include "xpon/core/file_descriptor.hpp"
#include "xpon/ipc/paths.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/signalfd.h>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include <zmq.hpp>
#include <zmq_addon.hpp>

namespace {

constexpr int kQueueDepth = 100000;

struct BusStats {
  std::uint64_t forwarded = 0;
  std::uint64_t malformed = 0;
  std::uint64_t subscription_messages = 0;
};

void say(const std::string& line) {
  const std::string text = "xpon-ipc-bus: " + line + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
}

/// Holds the exclusive lock of the bus so that a second bus cannot steal the socket files.
xpon::core::FileDescriptor lock_bus() {
  const std::string path = xpon::ipc::ipc_directory() + "/bus.lock";
  xpon::core::FileDescriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!lock) {
    throw std::runtime_error(fmt::format("cannot open the bus lock file: {}", std::strerror(errno)));
  }
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("another xpon-ipc-bus is already running");
  }
  return lock;
}

/// Reads the subscription messages XPUB hands up so that they never pile up; they are counted,
/// and with the crate transport on, an endpoint subscribing to a crate-wide key gets the crate's
/// last events of that key.
void drain_subscriptions(zmq::socket_t& publisher, BusStats& stats, xpon::ipc_bus::CrateLink* crate) {
  zmq::message_t message;
  while (publisher.recv(message, zmq::recv_flags::dontwait)) {
    ++stats.subscription_messages;
    if (crate != nullptr) {
      crate->local_subscription(message, publisher);
    }
  }
}

/// Forwards what the inlet holds; true if the batch was full (more may be waiting).
bool forward(zmq::socket_t& inlet, zmq::socket_t& publisher, BusStats& stats, xpon::ipc_bus::CrateLink* crate) {
  std::vector<zmq::message_t> frames;
  // A bounded batch keeps the subscription side and the signals served under a flood.
  for (int i = 0; i < 1024; ++i) {
    frames.clear();
    if (!zmq::recv_multipart(inlet, std::back_inserter(frames), zmq::recv_flags::dontwait)) {
      return false;
    }
    if (frames.size() != 3) {
      ++stats.malformed;
      continue;
    }
    if (crate != nullptr) {
      crate->offer(frames);  // before sending, which empties the frames
    }
    // XPUB never blocks: with no subscriber for the topic, or a subscriber at its HWM, it drops.
    publisher.send(frames[0], zmq::send_flags::sndmore);
    publisher.send(frames[1], zmq::send_flags::sndmore);
    publisher.send(frames[2], zmq::send_flags::none);
    ++stats.forwarded;
  }
  return true;
}

/// Waits for the main loop's poll items. zmq_poll asks every ZeroMQ socket for its events (a
/// system call or two each) before and after each wait, so that every event forwarded paid for
/// all the crate's sockets as well, before it was read. Here one epoll set holds the items'
/// descriptors (a socket's notification descriptor, or the plain one) and only the items whose
/// descriptor is ready are marked so (ZMQ_POLLIN in revents).
/// A socket's notification descriptor only tells that its state may have changed, and only once;
/// nor does it tell of the first messages of a link made without one (a monitor's inproc link):
/// every socket is read once before the first wait, whoever serves a marked socket reads it until
/// it has nothing more (or a batch is full, and it is then served again before the next wait),
/// and a socket that is also sent on is read after the send (which may have taken its notice).
class Poller {
 public:
  explicit Poller(std::vector<zmq::pollitem_t>& items)
      : items_(items), epoll_(::epoll_create1(EPOLL_CLOEXEC)), events_(items.size()) {
    if (!epoll_) {
      throw std::runtime_error(fmt::format("epoll_create1 failed: {}", std::strerror(errno)));
    }
    for (std::size_t i = 0; i < items_.size(); ++i) {
      int fd = items_[i].fd;
      if (items_[i].socket != nullptr) {
        std::size_t size = sizeof fd;
        if (zmq_getsockopt(items_[i].socket, ZMQ_FD, &fd, &size) != 0) {
          throw zmq::error_t();
        }
      }
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u64 = i;
      if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        throw std::runtime_error(fmt::format("epoll_ctl failed: {}", std::strerror(errno)));
      }
    }
  }

  /// Marks the ready items; waits for one unless `wait` is false.
  void poll(bool wait) {
    for (auto& item : items_) {
      item.revents = 0;
    }
    const int count = ::epoll_wait(epoll_.get(), events_.data(), static_cast<int>(events_.size()), wait ? -1 : 0);
    if (count < 0 && errno != EINTR) {
      throw std::runtime_error(fmt::format("epoll_wait failed: {}", std::strerror(errno)));
    }
    for (int i = 0; i < count; ++i) {
      items_[events_[static_cast<std::size_t>(i)].data.u64].revents = ZMQ_POLLIN;
    }
  }

 private:
  std::vector<zmq::pollitem_t>& items_;
  xpon::core::FileDescriptor epoll_;
  std::vector<epoll_event> events_;
};

int run(int settle_ms, bool verbose, const xpon::ipc_bus::CrateConfig& crate_config) {
  // Blocked before ZeroMQ starts its threads, so that they inherit the mask and the signals
  // are read only through the signalfd below.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const xpon::core::FileDescriptor signal_fd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signal_fd) {
    say(fmt::format("signalfd failed: {}", std::strerror(errno)));
    return 1;
  }

  xpon::ipc::ensure_ipc_directory();
  xpon::core::FileDescriptor lock = lock_bus();
  BusStats stats;
  {
    zmq::context_t context(1);
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    zmq::socket_t inlet(context, zmq::socket_type::pull);
    publisher.set(zmq::sockopt::linger, 0);
    inlet.set(zmq::sockopt::linger, 0);
    // Deep queues ride out bursts (an alarm storm) without dropping for a subscriber that lags a little.
    publisher.set(zmq::sockopt::sndhwm, kQueueDepth);
    inlet.set(zmq::sockopt::rcvhwm, kQueueDepth);
    inlet.set(zmq::sockopt::maxmsgsize, std::int64_t{1024} * 1024);
    if (crate_config.enabled) {
      // Every endpoint's subscription, not only the first of a topic: each one that subscribes to
      // a crate-wide key is handed the crate's last events of it.
      publisher.set(zmq::sockopt::xpub_verbose, true);
    }
    publisher.bind(xpon::ipc::bus_sub_endpoint());

    // Subscribers reconnect on their own after a restart of the bus; giving them a moment before
    // taking events keeps the events that publishers queued while the bus was down from being
    // forwarded to nobody.
    std::array<zmq::pollitem_t, 2> settle_items{{
        {publisher.handle(), 0, ZMQ_POLLIN, 0},
        {nullptr, signal_fd.get(), ZMQ_POLLIN, 0},
    }};
    const auto settle_end = std::chrono::steady_clock::now() + std::chrono::milliseconds(settle_ms);
    bool stop = false;
    while (!stop && std::chrono::steady_clock::now() < settle_end) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(settle_end - std::chrono::steady_clock::now());
      zmq::poll(settle_items.data(), settle_items.size(), left);
      drain_subscriptions(publisher, stats, nullptr);
      stop = (settle_items[1].revents & ZMQ_POLLIN) != 0;
    }
    inlet.bind(xpon::ipc::bus_in_endpoint());
    if (verbose) {
      say(fmt::format("forwarding {} -> {}", xpon::ipc::bus_in_endpoint(), xpon::ipc::bus_sub_endpoint()));
    }
    std::unique_ptr<xpon::ipc_bus::CrateLink> crate;
    if (crate_config.enabled) {
      crate = std::make_unique<xpon::ipc_bus::CrateLink>(context, crate_config, say);
    }

    std::vector<zmq::pollitem_t> items{
        {inlet.handle(), 0, ZMQ_POLLIN, 0},
        {publisher.handle(), 0, ZMQ_POLLIN, 0},
        {nullptr, signal_fd.get(), ZMQ_POLLIN, 0},
    };
    if (crate) {
      const auto crate_items = crate->poll_items();
      items.insert(items.end(), crate_items.begin(), crate_items.end());
    }
    Poller poller(items);
    // The first round reads every socket.
    bool inlet_more = true;
    bool crate_more = crate != nullptr;
    while (!stop) {
      poller.poll(!inlet_more && !crate_more);
      if (inlet_more || (items[0].revents & ZMQ_POLLIN) != 0) {
        inlet_more = forward(inlet, publisher, stats, crate.get());
      }
      if (crate) {
        crate_more = crate->service(&items[3], publisher, crate_more);
      }
      // Read on every round: forwarding sends on it, which may have taken its notice.
      drain_subscriptions(publisher, stats, crate.get());
      if ((items[2].revents & ZMQ_POLLIN) != 0) {
        signalfd_siginfo info{};
        [[maybe_unused]] const auto got = xpon::core::read_once(signal_fd.get(), &info, sizeof info);
        stop = true;
      }
    }
    if (crate) {
      const auto& counts = crate->stats();
      say(
          fmt::format("crate: {} events sent, {} received, {} handed to joining peers, {} published again for joining "
                      "endpoints, {} kept here (another slot), {} refused, {} connections refused",
                      counts.sent, counts.received, counts.replayed, counts.replayed_local, counts.foreign_slot,
                      counts.refused, counts.refused_peers));
      crate.reset();
    }
    inlet.close();
    publisher.close();
  }
  // The lock is let go only once the sockets are closed, so that a new bus never meets them.
  lock.reset();
  say(fmt::format("stopped: {} events forwarded, {} malformed messages dropped, {} subscription messages read",
                  stats.forwarded, stats.malformed, stats.subscription_messages));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Event bus of the board: forwards every event pushed to <run>/xpon/ipc/bus.in to the subscribers of "
      "<run>/xpon/ipc/bus.sub (<run> is $XPON_ROOT/run when XPON_ROOT is set, /run otherwise).",
      "xpon-ipc-bus"};
  int settle_ms = 250;
  bool verbose = false;
  app.add_option("--settle-ms", settle_ms, "Time given to subscribers to reconnect before events are taken")
      ->check(CLI::Range(0, 60000))
      ->capture_default_str();
  app.add_flag("-v,--verbose", verbose, "Say where the bus listens");
  std::string crate_config_path(xpon::ipc_bus::kDefaultCrateConfig);
  app.add_option("--crate-config", crate_config_path,
                 "Crate transport settings (TOML); a missing file leaves the transport off")
      ->capture_default_str();
  std::string key_directory;
  app.add_option("--generate-keys", key_directory,
                 "Write a new CURVE key pair for the crate transport into DIR (board.pub, board.key) and exit")
      ->type_name("DIR");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : 2;
  }
  if (!key_directory.empty()) {
    try {
      const auto [public_path, secret_path] = xpon::ipc_bus::generate_key_files(key_directory);
      std::printf("wrote %s and %s\n", public_path.c_str(), secret_path.c_str());
      return 0;
    } catch (const std::exception& error) {
      say(error.what());
      return 1;
    }
  }
  xpon::ipc_bus::CrateConfig crate_config;
  try {
    crate_config = xpon::ipc_bus::load_crate_config(crate_config_path);
  } catch (const xpon::ipc_bus::CrateConfigError& error) {
    say(error.what());
    return 2;
  }
  if (const std::string refusal = xpon::ipc_bus::listen_refusal(crate_config); !refusal.empty()) {
    say("crate: " + refusal);
    return 2;
  }
  try {
    return run(settle_ms, verbose, crate_config);
  } catch (const std::exception& error) {
    say(error.what());
    return 1;
  }
}
