#pragma once

#include <sys/types.h>

#include <cstddef>

namespace xpon::core {

/// Owns one open file descriptor and closes it exactly once: when it is destroyed, reset or
/// assigned over, or by close(). Move-only; a moved-from or empty object holds -1.
class FileDescriptor {
 public:
  /// An empty object that owns nothing.
  FileDescriptor() noexcept = default;

  /// Takes ownership of `descriptor`; a negative value (a failed open) makes an empty object.
  explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor < 0 ? -1 : descriptor) {}

  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}

  /// Closes what this object owned and takes over `other`'s descriptor; a self-move changes nothing.
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }

  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  /// Closes the descriptor, if any; a failing close is not reported and errno is kept as it was.
  ~FileDescriptor() { reset(); }

  /// The descriptor, still owned by this object (-1 when empty).
  [[nodiscard]] int get() const noexcept { return descriptor_; }

  /// Whether the object owns a descriptor.
  [[nodiscard]] bool valid() const noexcept { return descriptor_ >= 0; }
  explicit operator bool() const noexcept { return valid(); }

  /// Gives the descriptor up without closing it; the caller owns it now.
  [[nodiscard]] int release() noexcept {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor;
  }

  /// Closes the owned descriptor (errors not reported, errno kept) and takes `descriptor`
  /// instead. Resetting to the descriptor already owned changes nothing.
  void reset(int descriptor = -1) noexcept;

  /// Closes the owned descriptor now and reports how: 0, or the errno of the failed close.
  /// The object is empty afterwards in every case: on Linux the descriptor is gone once close
  /// returns, even when it fails, so a second close could only hit a descriptor another thread
  /// has opened since. EINTR therefore counts as closed and is never retried. An empty object
  /// gives EBADF. errno is kept as it was.
  int close() noexcept;

 private:
  int descriptor_ = -1;
};

/// Reads until `size` bytes are in `buffer` or the end of the file, retrying reads that a signal
/// interrupted. Returns the number of bytes read (fewer than `size` only at the end of the file),
/// or -1 with errno set when a read fails (EAGAIN included, for a non-blocking descriptor);
/// bytes read before the failure are then in `buffer` but not counted.
ssize_t read_full(int descriptor, void* buffer, std::size_t size) noexcept;

/// Writes all `size` bytes, continuing after partial writes and retrying writes that a signal
/// interrupted. Returns `size`, or -1 with errno set when a write fails (EIO when one writes
/// nothing at all, which would otherwise loop for ever).
ssize_t write_full(int descriptor, const void* data, std::size_t size) noexcept;

/// One read(2) that is retried while a signal interrupts it: the same result and errno as read
/// otherwise (a short count included). Async-signal-safe.
ssize_t read_once(int descriptor, void* buffer, std::size_t size) noexcept;

/// One write(2) that is retried while a signal interrupts it: the same result and errno as write
/// otherwise (a short count included). Async-signal-safe.
ssize_t write_once(int descriptor, const void* data, std::size_t size) noexcept;

namespace detail {

// The helpers above over a given system call, so that tests can interrupt, shorten and fail
// the calls at will.
using ReadCall = ssize_t (*)(int, void*, std::size_t);
using WriteCall = ssize_t (*)(int, const void*, std::size_t);
using CloseCall = int (*)(int);

ssize_t read_full(ReadCall call, int descriptor, void* buffer, std::size_t size) noexcept;
ssize_t write_full(WriteCall call, int descriptor, const void* data, std::size_t size) noexcept;
ssize_t read_once(ReadCall call, int descriptor, void* buffer, std::size_t size) noexcept;
ssize_t write_once(WriteCall call, int descriptor, const void* data, std::size_t size) noexcept;

/// Calls `call` once on `descriptor`: 0 when it closed (EINTR included), its errno otherwise;
/// errno is kept as it was.
int close_once(CloseCall call, int descriptor) noexcept;

}  // namespace detail

}  // namespace xpon::core
