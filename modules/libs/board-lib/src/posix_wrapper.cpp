#include "xpon/board/posix_wrapper.hpp"

#include "errno_text.hpp"
#include "xpon/board/driver_abi.h"
#include "xpon/core/host_path.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <stdexcept>

namespace xpon::board {

namespace {

// Close-on-exec: a program the daemon starts has no business holding the board device.
int open_device() {
  const std::string path = core::host_path(BOARD_DEVICE_PATH);
  return ::open(path.c_str(), O_RDWR | O_CLOEXEC);
}

}  // namespace

PosixWrapper::PosixWrapper(const std::shared_ptr<logger::ILogger>& logger) : logger_(logger) {
  if (!logger_) {
    throw std::runtime_error("PosixWrapper needs a logger");
  }
  // Texts keep the logical path; only the file actually opened moves under a sandbox root.
  fd_.reset(open_device());
  if (!fd_) {
    const int error_number = errno;
    // The trailing blank is part of the system's text; the process entry reports it, so nothing is logged here.
    throw DeviceOpenError(fmt::format("Can't open {} file ({}) ", BOARD_DEVICE_PATH, errno_text(error_number)));
  }
  logger_->progress("PosixWrapper create successfully");
}

PosixWrapper::~PosixWrapper() {
  if (!fd_) {
    // A reopen failed before shutdown: there is nothing left to close.
    logger_->progress("PosixWrapper destroy successfully");
    return;
  }
  if (const int error_number = fd_.close(); error_number != 0) {
    logger_->error("PosixWrapper destroy error ({})", errno_text(error_number));
    return;
  }
  logger_->progress("PosixWrapper destroy successfully");
}

int PosixWrapper::ioctl(unsigned long request, void* argument) {
  return ::ioctl(fd_.get(), request, argument);
}

int PosixWrapper::reopen() {
  // The old descriptor is closed first: a driver being reloaded cannot go while it is held open.
  fd_.reset();
  // errno of a failed open is left for the caller.
  fd_.reset(open_device());
  return fd_ ? 0 : -1;
}

}  // namespace xpon::board
