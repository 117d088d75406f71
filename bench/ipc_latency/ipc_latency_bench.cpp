// Latency and throughput of the IPC library over ipc:// sockets, next to a bare ZeroMQ
// DEALER/ROUTER ping-pong over the same transport, and events through a real xpon-ipc-bus.

#include "xpon/bench/percentiles.hpp"
#include "xpon/ipc/paths.hpp"
#include "xpon/ipc/zmq_ipc.hpp"

#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using namespace xpon::ipc;
using Clock = std::chrono::steady_clock;

constexpr Address kServer = 0x0015FFFE;
constexpr Address kClient = 0x0019FFFE;
constexpr Key kEcho{14500, 14504};

/// Round trips made before each latency measurement starts, in the library and the bare case alike.
constexpr int kWarmUpRoundTrips = 200;

std::shared_ptr<ZmqIpc> g_server;
std::shared_ptr<ZmqIpc> g_client;

/// CPU time of the whole process (every thread: clients, endpoints, ZeroMQ's own), in microseconds.
double process_cpu_us() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto micros = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
  };
  return micros(usage.ru_utime) + micros(usage.ru_stime);
}

/// CPU spent per iteration by the whole process: on a shared machine this stays meaningful when
/// wall-clock times do not, since it counts only work done, not time spent waiting for a core.
void set_cpu_per_iteration(benchmark::State& state, double cpu_before) {
  if (state.iterations() > 0) {
    state.counters["process_cpu_us_per_op"] = (process_cpu_us() - cpu_before) / static_cast<double>(state.iterations());
  }
}

/// For benchmarks run by several threads: the process CPU time when thread 0 starts.
double threads_cpu_start(const benchmark::State& state) {
  return state.thread_index() == 0 ? process_cpu_us() : 0.0;
}

/// Counts each thread's requests; thread 0 sets the process's CPU per request over all threads
/// (its share of the iterations times the number of threads).
void set_threads_cpu_per_request(benchmark::State& state, double cpu_before) {
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0 && state.iterations() > 0) {
    state.counters["process_cpu_us_per_op"] =
        benchmark::Counter((process_cpu_us() - cpu_before) / static_cast<double>(state.iterations() * state.threads()));
  }
}

void BM_LibraryRoundTrip(benchmark::State& state) {
  Request request;
  request.group = kEcho.group;
  request.id = kEcho.id;
  request.payload.assign(static_cast<std::size_t>(state.range(0)), 0x5A);
  // Warm-up, as for the bare ping-pong: connections made, first allocations done.
  for (int i = 0; i < kWarmUpRoundTrips; ++i) {
    if (!g_client->request(kServer, request, std::chrono::milliseconds(5000))) {
      state.SkipWithError("warm-up request failed");
      return;
    }
  }
  std::vector<double> micros;
  micros.reserve(200000);
  const double cpu_before = process_cpu_us();
  for (auto _ : state) {
    const auto start = Clock::now();
    auto answer = g_client->request(kServer, request, std::chrono::milliseconds(5000));
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (!answer) {
      state.SkipWithError("request failed");
      break;
    }
    benchmark::DoNotOptimize(answer);
  }
  set_cpu_per_iteration(state, cpu_before);
  xpon::bench::set_percentiles(state, micros);
}
BENCHMARK(BM_LibraryRoundTrip)->Arg(0)->Arg(305)->UseRealTime();

/// A bare DEALER/ROUTER ping-pong. With `separate_contexts` the echoing side has a ZeroMQ context
/// (and so a ZeroMQ I/O thread) of its own, as two library endpoints do, and as two processes
/// would; otherwise one I/O thread serves both ends.
void bare_round_trip(benchmark::State& state, bool separate_contexts) {
  zmq::context_t context(1);
  zmq::context_t echo_context(1);
  const std::string where = "ipc://" + ipc_directory() + "/bare-echo";
  std::atomic<bool> stop{false};
  zmq::socket_t router(separate_contexts ? echo_context : context, zmq::socket_type::router);
  router.set(zmq::sockopt::linger, 0);
  router.bind(where);
  std::thread echo([&] {
    router.set(zmq::sockopt::rcvtimeo, 100);
    std::vector<zmq::message_t> frames;
    while (!stop.load()) {
      frames.clear();
      if (!zmq::recv_multipart(router, std::back_inserter(frames))) {
        continue;
      }
      zmq::send_multipart(router, frames);
    }
  });
  zmq::socket_t dealer(context, zmq::socket_type::dealer);
  dealer.set(zmq::sockopt::linger, 0);
  dealer.connect(where);
  // The same two frames as a library message: a 24-byte header and the payload.
  const std::vector<std::uint8_t> header(24, 1);
  const std::vector<std::uint8_t> payload(static_cast<std::size_t>(state.range(0)), 0x5A);
  std::vector<zmq::message_t> reply;
  const auto round_trip = [&] {
    dealer.send(zmq::buffer(header), zmq::send_flags::sndmore);
    dealer.send(zmq::buffer(payload), zmq::send_flags::none);
    reply.clear();
    return zmq::recv_multipart(dealer, std::back_inserter(reply));
  };
  // Warm-up: the first round trip also waits for the connection to be made.
  for (int i = 0; i < kWarmUpRoundTrips; ++i) {
    (void)round_trip();
  }
  std::vector<double> micros;
  micros.reserve(200000);
  const double cpu_before = process_cpu_us();
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!round_trip() || reply.size() != 2) {
      state.SkipWithError("bare round trip failed");
      break;
    }
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  set_cpu_per_iteration(state, cpu_before);
  xpon::bench::set_percentiles(state, micros);
  stop = true;
  echo.join();
}

void BM_BareZmqRoundTrip(benchmark::State& state) {
  bare_round_trip(state, false);
}
BENCHMARK(BM_BareZmqRoundTrip)->Arg(0)->Arg(305)->UseRealTime();

void BM_BareZmqRoundTripTwoContexts(benchmark::State& state) {
  bare_round_trip(state, true);
}
BENCHMARK(BM_BareZmqRoundTripTwoContexts)->Arg(0)->Arg(305)->UseRealTime();

void BM_LibraryRequestsFromFourThreads(benchmark::State& state) {
  Request request;
  request.group = kEcho.group;
  request.id = kEcho.id;
  const double cpu_before = threads_cpu_start(state);
  for (auto _ : state) {
    auto answer = g_client->request(kServer, request, std::chrono::milliseconds(5000));
    if (!answer) {
      state.SkipWithError("request failed");
      break;
    }
  }
  set_threads_cpu_per_request(state, cpu_before);
}
BENCHMARK(BM_LibraryRequestsFromFourThreads)->Threads(4)->UseRealTime();

/// The bare floor of the four-thread figure: four threads, each with a DEALER of its own in one
/// client context, ping-ponging empty requests with one echoing ROUTER thread in a context of its
/// own (as the library's server endpoint has).
class BareEcho {
 public:
  BareEcho() : where_("ipc://" + ipc_directory() + "/bare-echo-threads"), router_(context_, zmq::socket_type::router) {
    router_.set(zmq::sockopt::linger, 0);
    router_.set(zmq::sockopt::rcvtimeo, 100);
    router_.bind(where_);
    thread_ = std::thread([this] {
      std::vector<zmq::message_t> frames;
      while (!stop_.load()) {
        frames.clear();
        if (zmq::recv_multipart(router_, std::back_inserter(frames))) {
          zmq::send_multipart(router_, frames);
        }
      }
    });
  }
  ~BareEcho() {
    stop_ = true;
    thread_.join();
  }
  BareEcho(const BareEcho&) = delete;
  BareEcho& operator=(const BareEcho&) = delete;

  const std::string& where() const { return where_; }
  zmq::context_t& client_context() { return client_context_; }

 private:
  std::string where_;
  zmq::context_t context_{1};
  zmq::context_t client_context_{1};
  zmq::socket_t router_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::unique_ptr<BareEcho> g_bare_echo;

void BM_BareZmqRequestsFromFourThreads(benchmark::State& state) {
  zmq::socket_t dealer(g_bare_echo->client_context(), zmq::socket_type::dealer);
  dealer.set(zmq::sockopt::linger, 0);
  dealer.connect(g_bare_echo->where());
  const std::vector<std::uint8_t> header(24, 1);
  std::vector<zmq::message_t> reply;
  const auto round_trip = [&] {
    dealer.send(zmq::buffer(header), zmq::send_flags::sndmore);
    dealer.send(zmq::const_buffer(nullptr, 0), zmq::send_flags::none);
    reply.clear();
    return zmq::recv_multipart(dealer, std::back_inserter(reply));
  };
  for (int i = 0; i < kWarmUpRoundTrips; ++i) {
    (void)round_trip();
  }
  const double cpu_before = threads_cpu_start(state);
  for (auto _ : state) {
    if (!round_trip() || reply.size() != 2) {
      state.SkipWithError("bare round trip failed");
      break;
    }
  }
  set_threads_cpu_per_request(state, cpu_before);
}
BENCHMARK(BM_BareZmqRequestsFromFourThreads)
    ->Threads(4)
    ->UseRealTime()
    ->Setup([](const benchmark::State&) { g_bare_echo = std::make_unique<BareEcho>(); })
    ->Teardown([](const benchmark::State&) { g_bare_echo.reset(); });

void BM_EventsThroughBus(benchmark::State& state) {
  ZmqIpcOptions options;
  options.delivery_threads = 1;
  auto publisher = make_zmq_endpoint(0x0042FFFE, "bench-publisher", options);
  auto subscriber = make_zmq_endpoint(0x0043FFFE, "bench-subscriber", options);
  std::atomic<std::uint64_t> received{0};
  (void)subscriber->subscribe_event(Key{9000, 9005}, [&](const Event&) -> xpon::core::Result<void> {
    received.fetch_add(1, std::memory_order_relaxed);
    return xpon::core::success();
  });
  Event event;
  event.group = 9000;
  event.id = 9005;
  event.payload.assign(305, 0x41);  // an alarm record
  // Wait until the subscription has reached the bus.
  while (received.load() == 0) {
    (void)publisher->send_event(event);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const std::uint64_t base = received.load();
  std::uint64_t sent = 0;
  const double cpu_before = process_cpu_us();
  // At most this many events in flight, so that no queue on the way overflows.
  constexpr std::uint64_t kWindow = 2000;
  for (auto _ : state) {
    while (sent - (received.load(std::memory_order_relaxed) - base) >= kWindow) {
      std::this_thread::yield();
    }
    while (!publisher->send_event(event)) {
      std::this_thread::yield();
    }
    ++sent;
  }
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (received.load() - base < sent && Clock::now() < deadline) {
    std::this_thread::yield();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(received.load() - base));
  // The bus runs in its own process, so this is the publisher's and the subscriber's share only.
  set_cpu_per_iteration(state, cpu_before);
  state.counters["lost"] = static_cast<double>(sent - (received.load() - base));
  state.counters["dropped_at_subscriber"] = static_cast<double>(subscriber->stats().queue_overflows);
}
BENCHMARK(BM_EventsThroughBus)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
  std::string root = (std::filesystem::temp_directory_path() / "xpon-ipc-bench-XXXXXX").string();
  if (::mkdtemp(root.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  ::setenv("XPON_ROOT", root.c_str(), 1);
  ensure_ipc_directory();

  std::string bus_path = XPON_IPC_BUS_PATH;
  char* bus_argv[] = {bus_path.data(), nullptr};
  pid_t bus = -1;
  if (::posix_spawn(&bus, bus_argv[0], nullptr, nullptr, bus_argv, environ) != 0) {
    std::perror("posix_spawn xpon-ipc-bus");
    return 1;
  }

  g_server = make_zmq_endpoint(kServer, "bench-server");
  g_client = make_zmq_endpoint(kClient, "bench-client");
  (void)g_server->subscribe_request(kEcho, [](const Request& request) -> xpon::core::Result<void> {
    Response response;
    response.payload = request.payload;
    response.reply_tag = request.reply_to->tag;
    response.result = 1;
    return g_server->send_response(request.reply_to->address, response);
  });

  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  g_client.reset();
  g_server.reset();
  ::kill(bus, SIGTERM);
  ::waitpid(bus, nullptr, 0);
  std::filesystem::remove_all(root);
  return 0;
}
