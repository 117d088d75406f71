#define FUSE_USE_VERSION 312

#include "xpon/board_emu/cuse_server.hpp"

#include "file_system.hpp"
#include "xpon/board_emu/fuse_server.hpp"

#include <fmt/format.h>
#include <fuse3/cuse_lowlevel.h>
#include <fuse3/fuse.h>
#include <systemd/sd-daemon.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <system_error>
#include <thread>
#include <vector>

namespace xpon::board_emu {

namespace {

// Signals. The main thread blocks all of these and takes the stop signals and kEndedSignal with
// sigwait; every thread started afterwards inherits the blocked set. The two loop threads unblock
// kWakeSignal alone, whose handler does nothing: it only interrupts a loop's wait.
constexpr int kWakeSignal = SIGUSR1;
constexpr int kEndedSignal = SIGUSR2;  // a loop thread ended without being asked to

sigset_t waited_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, kEndedSignal}) {
    sigaddset(&signals, signal);
  }
  return signals;
}

void ignore_wake(int /*signal*/) {}

// What the CUSE callbacks reach through the session's user data.
struct Device {
  Emulator& emulator;
  logger::ILogger& logger;
  std::string path;  // /dev/<name>
  std::atomic<bool> created = false;
};

Device& device_of(fuse_req_t request) {
  return *static_cast<Device*>(fuse_req_userdata(request));
}

// The kernel creates the device while it takes our answer to CUSE_INIT (the node in devtmpfs
// included), and libfuse calls this right after sending that answer.
void device_created(void* userdata) {
  auto& device = *static_cast<Device*>(userdata);
  device.created = true;
  device.logger.logf(logger::kInfo, "serving {}", device.path);
  (void)sd_notify(0, "READY=1");
}

void device_open(fuse_req_t request, fuse_file_info* info) {
  info->direct_io = 1;
  info->nonseekable = 1;
  fuse_reply_open(request, info);
}

void device_release(fuse_req_t request, fuse_file_info* /*info*/) {
  fuse_reply_err(request, 0);
}

// Restricted ioctls: the kernel copies in `in_size` bytes for a command that writes and copies
// out `out_size` bytes of one that reads, both the size encoded in the request code, as it does
// for the real driver. The record is answered in place, as in the FUSE mode.
void device_ioctl(fuse_req_t request, int command, void* /*argument*/, fuse_file_info* /*info*/, unsigned int flags,
                  const void* in, size_t in_size, size_t out_size) {
  if ((flags & FUSE_IOCTL_COMPAT) != 0) {
    fuse_reply_err(request, ENOSYS);
    return;
  }
  std::vector<unsigned char> record(std::max(in_size, out_size));
  if (in_size != 0) {
    std::memcpy(record.data(), in, in_size);
  }
  const int result = device_of(request).emulator.ioctl(static_cast<unsigned int>(command), record.data());
  if (result < 0) {
    fuse_reply_err(request, -result);
    return;
  }
  fuse_reply_ioctl(request, result, record.data(), out_size);
}

// A CUSE session for /dev/<name> on the already open CUSE channel; it owns the channel from
// here on, also when null is returned.
fuse_session* new_device_session(Device& device, const std::string& name, int channel, logger::ILogger& logger) {
  static const cuse_lowlevel_ops operations = [] {
    cuse_lowlevel_ops ops{};
    ops.init_done = device_created;
    ops.open = device_open;
    ops.release = device_release;
    ops.ioctl = device_ioctl;
    return ops;
  }();
  const std::string devname = "DEVNAME=" + name;
  const char* info_words[] = {devname.c_str()};
  cuse_info info{};
  info.dev_info_argc = 1;
  info.dev_info_argv = info_words;  // copied by libfuse
  info.flags = 0;                   // restricted ioctls

  fuse_args args = FUSE_ARGS_INIT(0, nullptr);
  fuse_session* session = nullptr;
  if (fuse_opt_add_arg(&args, "xpon-board-emu") == 0) {
    session = cuse_lowlevel_new(&args, &info, &operations, &device);
  }
  fuse_opt_free_args(&args);
  if (session == nullptr) {
    logger.error("cannot create the CUSE session");
    ::close(channel);
    return nullptr;
  }
  // "/dev/fd/N" hands libfuse a channel that is already open instead of mounting.
  if (fuse_session_mount(session, fmt::format("/dev/fd/{}", channel).c_str()) != 0) {
    logger.error("cannot attach the CUSE channel to the session");
    fuse_session_destroy(session);
    ::close(channel);
    return nullptr;
  }
  return session;
}

// One FUSE or CUSE session loop on a thread of its own.
class LoopThread {
 public:
  LoopThread(fuse_session* session, std::function<int()> loop)
      : session_(session), thread_([this, loop = std::move(loop)] { run(loop); }) {}

  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  ~LoopThread() { (void)stop(); }

  /// Ends the loop if it still runs and waits for its thread; returns what the loop returned.
  int stop() {
    if (!thread_.joinable()) {
      return result_;
    }
    fuse_session_exit(session_);
    // The loop looks at the exit flag only when its wait is interrupted, and a wake-up that
    // arrives just before it starts waiting is lost: so it is woken until it has returned.
    while (!ended_) {
      pthread_kill(thread_.native_handle(), kWakeSignal);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    thread_.join();
    return result_;
  }

  /// Whether the loop has returned.
  [[nodiscard]] bool ended() const { return ended_; }

 private:
  void run(const std::function<int()>& loop) {
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, kWakeSignal);
    pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);
    result_ = loop();
    ended_ = true;
    // Tells the main thread; after stop() it is a pending signal that nobody waits for.
    ::kill(::getpid(), kEndedSignal);
  }

  fuse_session* session_;
  int result_ = 0;
  std::atomic<bool> ended_ = false;
  std::thread thread_;  // last: the thread starts once the members above exist
};

int loop_device(fuse_session* session) {
  fuse_loop_config* config = fuse_loop_cfg_create();
  const int result = fuse_session_loop_mt(session, config);
  fuse_loop_cfg_destroy(config);
  return result;
}

int loop_files(fuse* filesystem) {
  fuse_loop_config* config = fuse_loop_cfg_create();
  const int result = fuse_loop_mt(filesystem, config);
  fuse_loop_cfg_destroy(config);
  return result;
}

}  // namespace

bool is_device_name(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  });
}

int serve_cuse(Emulator& emulator, const CuseOptions& options, logger::ILogger& logger) {
  // Blocked from here to the end of the process; the main thread takes them with sigwait below.
  sigset_t blocked = waited_signals();
  sigaddset(&blocked, kWakeSignal);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  struct sigaction wake {};
  wake.sa_handler = ignore_wake;
  sigaction(kWakeSignal, &wake, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  // The CUSE channel comes first, so that a machine without CUSE is told so before anything
  // is created or mounted.
  const int channel = ::open(options.cuse_device.c_str(), O_RDWR | O_CLOEXEC);
  if (channel < 0) {
    const int error = errno;
    if (error == ENOENT || error == ENODEV || error == ENXIO) {
      logger.error("cannot open {}: {}: CUSE is not available (load the kernel module: modprobe cuse)",
                   options.cuse_device, std::strerror(error));
    } else {
      logger.error("cannot open {}: {} (CUSE needs root)", options.cuse_device, std::strerror(error));
    }
    return kExitMountFailed;
  }
  Device device{emulator, logger, "/dev/" + options.device_name};
  fuse_session* session = new_device_session(device, options.device_name, channel, logger);
  if (session == nullptr) {
    return kExitMountFailed;
  }

  std::error_code error;
  std::filesystem::create_directories(options.state_dir, error);
  if (error) {
    logger.error("cannot create {}: {}", options.state_dir, error.message());
    fuse_session_destroy(session);
    return kExitMountFailed;
  }
  // Run as root for the device, the state files are mounted for everybody; their modes apply.
  ServedFiles files{emulator, false};
  fuse* state = mount_files(files, options.state_dir, ",allow_other,default_permissions", logger);
  if (state == nullptr) {
    fuse_session_destroy(session);
    return kExitMountFailed;
  }
  // Threads do not survive the fork of daemonizing, so they start afterwards.
  if (fuse_daemonize(options.foreground ? 1 : 0) != 0) {
    logger.error("cannot detach from the terminal");
    unmount_files(state);
    fuse_session_destroy(session);
    return kExitFailure;
  }
  logger.logf(logger::kInfo, "creating {} through {}; serving {}/{} and {}/{}", device.path, options.cuse_device,
              options.state_dir, kStateFile, options.state_dir, kControlFile);
  emulator.start_timeline();

  int signal = 0;
  int device_result = 0;
  int files_result = 0;
  {
    LoopThread device_loop(session, [session] { return loop_device(session); });
    LoopThread files_loop(fuse_get_session(state), [state] { return loop_files(state); });
    const sigset_t waited = waited_signals();
    sigwait(&waited, &signal);
    (void)sd_notify(0, "STOPPING=1");
    if (signal == kEndedSignal) {
      if (device_loop.ended() && !device.created) {
        logger.error("the kernel did not create {} (is the name taken?)", device.path);
      } else if (device_loop.ended()) {
        logger.error("the CUSE channel of {} was closed", device.path);
      } else {
        logger.error("{} was unmounted", options.state_dir);
      }
    }
    files_result = files_loop.stop();
    device_result = device_loop.stop();
  }
  emulator.stop_timeline();
  unmount_files(state);
  fuse_session_destroy(session);  // closes the channel: the kernel removes the device

  if (signal == kEndedSignal) {
    return device.created ? kExitFailure : kExitMountFailed;
  }
  if (device_result < 0 || files_result < 0) {
    logger.error("a FUSE loop failed: {}", std::strerror(-std::min(device_result, files_result)));
    return kExitFailure;
  }
  logger.logf(logger::kInfo, "removed {} and unmounted {}", device.path, options.state_dir);
  return kExitClean;
}

}  // namespace xpon::board_emu
