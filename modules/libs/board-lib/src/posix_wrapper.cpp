#include "xpon/board/posix_wrapper.hpp"

#include "errno_text.hpp"
#include "xpon/board/driver_abi.h"
#include "xpon/core/host_path.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace xpon::board {

PosixWrapper::PosixWrapper(const std::shared_ptr<logger::ILogger>& logger) : logger_(logger) {
  if (!logger_) {
    throw std::runtime_error("PosixWrapper needs a logger");
  }
  // Texts keep the logical path; only the file actually opened moves under a sandbox root.
  const std::string path = core::host_path(BOARD_DEVICE_PATH);
  fd_ = ::open(path.c_str(), O_RDWR);
  if (fd_ < 0) {
    const int error_number = errno;
    // The trailing blank is part of the system's text; the process entry reports it, so nothing is logged here.
    throw DeviceOpenError(fmt::format("Can't open {} file ({}) ", BOARD_DEVICE_PATH, errno_text(error_number)));
  }
  logger_->progress("PosixWrapper create successfully");
}

PosixWrapper::~PosixWrapper() {
  if (::close(fd_) < 0) {
    const int error_number = errno;
    logger_->error("PosixWrapper destroy error ({})", errno_text(error_number));
    return;
  }
  logger_->progress("PosixWrapper destroy successfully");
}

int PosixWrapper::ioctl(unsigned long request, void* argument) {
  return ::ioctl(fd_, request, argument);
}

}  // namespace xpon::board
