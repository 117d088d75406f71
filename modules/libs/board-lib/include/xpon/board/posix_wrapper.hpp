#pragma once

#include "xpon/core/file_descriptor.hpp"
#include "xpon/logger/ilogger.hpp"

#include <memory>
#include <stdexcept>

namespace xpon::board {

/// The one seam through which the board library reaches the board driver's device file.
class IPosixWrapper {
 public:
  virtual ~IPosixWrapper() = default;

  /// Issues ioctl(request, argument) on the open device; returns what ioctl returned, with errno set on failure.
  virtual int ioctl(unsigned long request, void* argument) = 0;

  /// Drops the descriptor and opens the device again; returns 0, or -1 with errno set and no descriptor.
  virtual int reopen() = 0;

 protected:
  IPosixWrapper() = default;
  IPosixWrapper(const IPosixWrapper&) = default;
  IPosixWrapper& operator=(const IPosixWrapper&) = default;
};

/// The board device could not be opened. Kept apart from the wrapper's other failures
/// because callers report it as the board being unusable, not as a fault of the wrapper.
class DeviceOpenError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Owns the open descriptor of "/dev/board"; the only place that calls open, close and ioctl.
class PosixWrapper : public IPosixWrapper {
 public:
  /// Opens "/dev/board" (under $XPON_ROOT when set) read-write and close-on-exec; throws
  /// DeviceOpenError when it cannot, std::runtime_error for a missing logger.
  explicit PosixWrapper(const std::shared_ptr<logger::ILogger>& logger);

  /// Closes the device; a failing close is logged, never thrown.
  ~PosixWrapper() override;

  PosixWrapper(const PosixWrapper&) = delete;
  PosixWrapper& operator=(const PosixWrapper&) = delete;

  /// Issues ioctl on the device descriptor.
  int ioctl(unsigned long request, void* argument) override;

  /// Closes the descriptor (a lost device's, which reaches no driver any more) and opens the
  /// device again; after a failed open there is no descriptor and ioctl fails with EBADF.
  int reopen() override;

  /// The open descriptor (-1 after a failed reopen), for diagnostics.
  [[nodiscard]] int descriptor() const noexcept { return fd_.get(); }

 private:
  std::shared_ptr<logger::ILogger> logger_;
  core::FileDescriptor fd_;
};

}  // namespace xpon::board
