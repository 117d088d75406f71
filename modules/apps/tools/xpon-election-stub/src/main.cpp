// xpon-election-stub: stands in for the platform's Election Manager on machines that have none
// (development machines, tests, a crate on one machine). It answers the mastership query at the
// Election Manager's address with a master slot set from outside, and publishes the mastership
// change event whenever that slot changes.

#include "xpon/core/file_descriptor.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/tool/command_line.hpp"
#include "xpon/tool/console.hpp"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>

namespace {

using namespace xpon::ipc;

constexpr std::string_view kProgram = "xpon-election-stub";
constexpr Address kElectionManager = 0x0015FFFE;
constexpr Key kMasterQuery{14500, 14504};
// IPC_EVENT_ELECTION__MASTER_CHANGED; its payload is the new master slot as u16 little-endian,
// which is what the daemon's service library reads (it drops the event with any other size).
constexpr Key kMasterChanged{14500, 14505};
constexpr std::uint16_t kDefaultMaster = 21;
// 0xFFFE means "this board" in an address, and 0xFFFF no slot at all.
constexpr std::uint16_t kHighestSlot = 65533;
constexpr int kPollPeriodMs = 200;

void log_line(const std::string& line) {
  xpon::tool::print_error(kProgram, line);
}

/// A slot as the option and the file give it: decimal digits only, 0 to 65533.
std::optional<std::uint16_t> parse_slot(std::string_view text) {
  unsigned value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, 10);
  if (text.empty() || error != std::errc{} || stop != end || value > kHighestSlot) {
    return std::nullopt;
  }
  return static_cast<std::uint16_t>(value);
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::string> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return std::nullopt;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

Payload slot_payload(std::uint16_t slot) {
  return {static_cast<std::uint8_t>(slot & 0xFFU), static_cast<std::uint8_t>(slot >> 8U)};
}

/// The master slot, the file it follows and the endpoint it is told through.
class Election {
 public:
  Election(std::shared_ptr<ZmqIpc> endpoint, std::uint16_t master, std::optional<std::string> file, bool verbose)
      : endpoint_(std::move(endpoint)), master_(master), file_(std::move(file)), verbose_(verbose) {}

  xpon::core::Result<void> answer(const Request& request) {
    const std::uint16_t master = master_.load();
    if (!request.reply_to) {
      if (verbose_) {
        log_line("a query that wants no answer, ignored");
      }
      return xpon::core::success();
    }
    Response response;
    response.payload = slot_payload(master);
    response.reply_tag = request.reply_to->tag;
    response.result = 1;
    auto sent = endpoint_->send_response(request.reply_to->address, response);
    if (verbose_) {
      log_line(fmt::format("answered the query of 0x{:08x}: master slot {}", request.reply_to->address, master));
    }
    return sent;
  }

  /// Reads the master file when its content has changed since the last look, or always when
  /// `forced` (SIGUSR1). An absent or empty file is no news; a bad content is refused.
  void look_at_file(bool forced) {
    if (!file_) {
      return;
    }
    const auto content = read_file(*file_);
    if (!content || (!forced && content == last_content_)) {
      return;
    }
    last_content_ = content;
    const std::string_view text = trimmed(*content);
    if (text.empty()) {
      return;
    }
    const auto slot = parse_slot(text);
    if (!slot) {
      log_line(fmt::format("master file {}: '{}' is not a slot (a decimal number from 0 to {}); master stays {}",
                           *file_, text, kHighestSlot, master_.load()));
      return;
    }
    set_master(*slot);
  }

  [[nodiscard]] std::uint16_t master() const { return master_.load(); }

  /// Publishes the master slot once at start, as an election that has just ended would. A board
  /// whose bus carries the crate transport keeps it and hands it to the daemons that start later.
  void announce() {
    if (announced_) {
      return;  // the master file's content at start was already published as a change
    }
    const std::uint16_t slot = master_.load();
    const std::string what = fmt::format("master slot {} announced", slot);
    publish(slot, what);
  }

 private:
  void set_master(std::uint16_t slot) {
    const std::uint16_t old = master_.exchange(slot);
    if (old == slot) {
      return;
    }
    publish(slot, fmt::format("master slot {} -> {}", old, slot));
  }

  void publish(std::uint16_t slot, const std::string& what) {
    announced_ = true;
    Event event;
    event.group = kMasterChanged.group;
    event.id = kMasterChanged.id;
    event.payload = slot_payload(slot);
    const auto sent = endpoint_->send_event(event);
    if (!sent) {
      log_line(fmt::format("{}; publishing {}:{} failed: {}", what, kMasterChanged.group, kMasterChanged.id,
                           sent.error().to_string()));
      return;
    }
    log_line(fmt::format("{}, published {}:{}", what, kMasterChanged.group, kMasterChanged.id));
  }

  std::shared_ptr<ZmqIpc> endpoint_;
  std::atomic<std::uint16_t> master_;
  std::optional<std::string> file_;
  std::optional<std::string> last_content_;
  bool verbose_;
  bool announced_ = false;
};

int run(const std::string& master_text, const std::optional<std::string>& master_file, bool verbose) {
  const auto master = parse_slot(master_text);
  if (!master) {
    throw xpon::tool::UsageError(
        fmt::format("--master: '{}' is not a slot (a decimal number from 0 to {})", master_text, kHighestSlot));
  }
  sigset_t signals = xpon::tool::stop_signals();
  sigaddset(&signals, SIGUSR1);
  const xpon::core::FileDescriptor signal_fd(::signalfd(-1, &signals, SFD_CLOEXEC));
  if (!signal_fd) {
    log_line(fmt::format("cannot read signals: {}", std::strerror(errno)));
    return xpon::tool::kExitFailed;
  }

  ZmqIpcOptions options;
  options.delivery_threads = 1;
  // Lets a change published just before SIGTERM still reach the bus.
  options.linger = std::chrono::milliseconds(1000);
  auto endpoint = make_zmq_endpoint(kElectionManager, kProgram, options);
  Election election(endpoint, *master, master_file, verbose);
  election.look_at_file(false);
  election.announce();
  const auto subscribed =
      endpoint->subscribe_request(kMasterQuery, [&](const Request& request) { return election.answer(request); });
  if (!subscribed) {
    log_line(subscribed.error().to_string());
    return xpon::tool::kExitFailed;
  }
  log_line(fmt::format("serving {}:{} at 0x{:08x}, master slot {}", kMasterQuery.group, kMasterQuery.id,
                       kElectionManager, election.master()));

  while (true) {
    pollfd ready{signal_fd.get(), POLLIN, 0};
    const int count = ::poll(&ready, 1, kPollPeriodMs);
    if (count <= 0) {
      election.look_at_file(false);
      continue;
    }
    signalfd_siginfo info{};
    if (xpon::core::read_once(signal_fd.get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
      continue;
    }
    if (info.ssi_signo == SIGUSR1) {
      election.look_at_file(true);
      continue;
    }
    break;
  }
  (void)endpoint->unsubscribe_request(kMasterQuery);
  return xpon::tool::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  // SIGUSR1 is read through the signalfd too, so it is blocked before any thread starts.
  xpon::tool::block_stop_signals();
  sigset_t usr1;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &usr1, nullptr);

  CLI::App app{
      "A stand-in for the platform's Election Manager, for development machines, tests and a crate on one "
      "machine; on a real crate the platform's own daemon owns this address. At 0x0015FFFE (XPON_ROOT and "
      "XPON_SLOT apply as for every endpoint) it answers the mastership query 14500:14504 with result 1 and "
      "the master slot as u16 little-endian, and publishes 14500:14505 with the slot as payload once at start "
      "and whenever the master changes. The master is --master at start; with --master-file it follows the file's "
      "content "
      "(a decimal slot, checked every 200 ms and at once on SIGUSR1; a bad content is refused and the master "
      "kept). SIGINT or SIGTERM ends it.\n"
      "Exit status: 0 stopped by a signal, 1 failure, 2 usage.",
      std::string(kProgram)};
  std::string master = std::to_string(kDefaultMaster);
  std::optional<std::string> master_file;
  bool verbose = false;
  app.add_option("--master", master, "The master slot at start, 0 to 65533")->option_text("SLOT=21");
  app.add_option("--master-file", master_file,
                 "A file holding the master slot in decimal; its content, when valid, wins over --master")
      ->option_text("PATH");
  app.add_flag("-v,--verbose", verbose, "Also log every query answered");

  return xpon::tool::run_command_line(app, argc, argv, [&] { return run(master, master_file, verbose); });
}
