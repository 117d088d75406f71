#include "xpon/board_emu/emulator.hpp"

#include "xpon/board_emu/operations.hpp"

#include <fmt/format.h>

#include <pthread.h>
#include <cerrno>
#include <chrono>
#include <csignal>

namespace xpon::board_emu {

Emulator::Emulator(Scenario scenario, std::shared_ptr<logger::ILogger> logger)
    : logger_(std::move(logger)), model_(std::move(scenario.model)), timeline_(std::move(scenario.timeline)) {}

Emulator::~Emulator() {
  stop_timeline();
}

int Emulator::ioctl(unsigned int request, void* argument) {
  const Operation* operation = find_operation(request);
  if (operation == nullptr) {
    logger_->warning("ioctl 0x{:08X}: no such driver command", request);
    return -ENOTTY;
  }

  Fault hit;
  bool faulted = false;
  {
    std::lock_guard lock(mutex_);
    if (auto found = model_.faults.find(operation->name); found != model_.faults.end()) {
      faulted = true;
      hit = found->second;
      if (found->second.remaining && --*found->second.remaining == 0) {
        model_.faults.erase(found);
      }
    }
  }
  if (faulted) {
    logger_->logf(logger::kInfo, "{}: injected {}{}", operation->name,
                  hit.error != 0 ? errno_name(hit.error) : std::string("delay"),
                  hit.delay_ms != 0 ? fmt::format(" after {} ms", hit.delay_ms) : std::string());
    // The delay stands for a slow bus; it must not hold up other callers or the state file.
    std::this_thread::sleep_for(std::chrono::milliseconds(hit.delay_ms));
    if (hit.error != 0) {
      return -hit.error;
    }
  }

  std::lock_guard lock(mutex_);
  const int error = operation->answer(model_, argument);
  if (error != 0) {
    // Clients probe ports the board may not have once a second, so this is a debug line.
    logger_->progress("{}: refused with {}", operation->name, errno_name(error));
  }
  return -error;
}

std::string Emulator::state_document() const {
  std::lock_guard lock(mutex_);
  return model_to_json(model_).dump(2) + "\n";
}

core::Result<void> Emulator::apply_patch_text(std::string_view text) {
  auto patch = parse_json_text(text);
  if (!patch) {
    refuse_control(error_text(patch.error()));
    return patch.error();
  }
  return apply_patch_json(patch.value(), "board-control");
}

core::Result<void> Emulator::apply_patch_json(const Json& patch, std::string_view source) {
  std::lock_guard lock(mutex_);
  auto patched = apply_patch(model_, patch);
  const bool from_control = source == "board-control";
  if (!patched) {
    const auto reason = error_text(patched.error());
    logger_->error("{}: patch refused: {}", source, reason);
    if (from_control) {
      control_status_ = fmt::format("error: {}\n", reason);
    }
    return patched.error();
  }
  model_ = std::move(patched.value());
  logger_->logf(logger::kInfo, "{}: patch applied: {}", source, patch.dump());
  if (from_control) {
    control_status_ = "ok\n";
  }
  return core::success();
}

void Emulator::refuse_control(const std::string& reason) {
  logger_->error("board-control: patch refused: {}", reason);
  std::lock_guard lock(mutex_);
  control_status_ = fmt::format("error: {}\n", reason);
}

std::string Emulator::control_status() const {
  std::lock_guard lock(mutex_);
  return control_status_;
}

BoardModel Emulator::snapshot() const {
  std::lock_guard lock(mutex_);
  return model_;
}

void Emulator::start_timeline() {
  std::lock_guard lock(mutex_);
  if (thermal_thread_.joinable()) {
    return;
  }
  timeline_stopping_ = false;
  // Termination signals belong to the thread that serves the file system; the timeline thread
  // is started with them blocked so that a signal always reaches the loop that must end.
  sigset_t blocked;
  sigset_t previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &blocked, &previous);
  if (!timeline_.empty()) {
    timeline_thread_ = std::thread([this] { run_timeline(); });
  }
  // The thermal model runs from the start, idle until a scenario or a patch enables it.
  thermal_thread_ = std::thread([this] { run_thermal(); });
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

void Emulator::stop_timeline() {
  {
    std::lock_guard lock(mutex_);
    timeline_stopping_ = true;
  }
  timeline_wakeup_.notify_all();
  if (timeline_thread_.joinable()) {
    timeline_thread_.join();
  }
  if (thermal_thread_.joinable()) {
    thermal_thread_.join();
  }
}

void Emulator::run_thermal() {
  std::unique_lock lock(mutex_);
  while (true) {
    const std::chrono::milliseconds step(model_.thermal.step_ms);
    if (timeline_wakeup_.wait_for(lock, step, [this] { return timeline_stopping_; })) {
      return;
    }
    thermal_step(model_);
  }
}

void Emulator::run_timeline() {
  const auto start = std::chrono::steady_clock::now();
  std::size_t next = 0;
  std::unique_lock lock(mutex_);
  while (next < timeline_.size()) {
    const auto due = start + timeline_[next].at;
    if (timeline_wakeup_.wait_until(lock, due, [this] { return timeline_stopping_; })) {
      return;
    }
    const Json patch = timeline_[next].patch;
    const auto source = fmt::format("timeline at {} ms", timeline_[next].at.count());
    ++next;
    lock.unlock();
    (void)apply_patch_json(patch, source);
    lock.lock();
  }
}

}  // namespace xpon::board_emu
