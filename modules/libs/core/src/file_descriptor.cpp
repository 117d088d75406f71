#include "xpon/core/file_descriptor.hpp"

#include <unistd.h>

#include <cerrno>

namespace xpon::core {

namespace {

ssize_t system_read(int descriptor, void* buffer, std::size_t size) {
  return ::read(descriptor, buffer, size);
}

ssize_t system_write(int descriptor, const void* data, std::size_t size) {
  return ::write(descriptor, data, size);
}

int system_close(int descriptor) {
  return ::close(descriptor);
}

}  // namespace

void FileDescriptor::reset(int descriptor) noexcept {
  const int replacement = descriptor < 0 ? -1 : descriptor;
  if (replacement == descriptor_) {
    return;
  }
  if (descriptor_ >= 0) {
    (void)detail::close_once(system_close, descriptor_);
  }
  descriptor_ = replacement;
}

int FileDescriptor::close() noexcept {
  if (descriptor_ < 0) {
    return EBADF;
  }
  return detail::close_once(system_close, release());
}

ssize_t read_full(int descriptor, void* buffer, std::size_t size) noexcept {
  return detail::read_full(system_read, descriptor, buffer, size);
}

ssize_t write_full(int descriptor, const void* data, std::size_t size) noexcept {
  return detail::write_full(system_write, descriptor, data, size);
}

ssize_t read_once(int descriptor, void* buffer, std::size_t size) noexcept {
  return detail::read_once(system_read, descriptor, buffer, size);
}

ssize_t write_once(int descriptor, const void* data, std::size_t size) noexcept {
  return detail::write_once(system_write, descriptor, data, size);
}

namespace {

// One call, repeated while a signal interrupts it.
template <typename Call, typename Buffer>
ssize_t retry_interrupted(Call call, int descriptor, Buffer buffer, std::size_t size) noexcept {
  for (;;) {
    const ssize_t count = call(descriptor, buffer, size);
    if (count >= 0 || errno != EINTR) {
      return count;
    }
  }
}

// Calls until `size` bytes have moved. A call that moves nothing is the end of the file for a
// read, and an error (EIO) for a write, which would otherwise be repeated for ever.
template <typename Call, typename Byte>
ssize_t transfer_all(Call call, int descriptor, Byte* bytes, std::size_t size, bool nothing_is_the_end) noexcept {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = retry_interrupted(call, descriptor, bytes + done, size - done);
    if (count < 0) {
      return -1;
    }
    if (count == 0) {
      if (nothing_is_the_end) {
        break;
      }
      errno = EIO;
      return -1;
    }
    done += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

ssize_t detail::read_once(ReadCall call, int descriptor, void* buffer, std::size_t size) noexcept {
  return retry_interrupted(call, descriptor, buffer, size);
}

ssize_t detail::write_once(WriteCall call, int descriptor, const void* data, std::size_t size) noexcept {
  return retry_interrupted(call, descriptor, data, size);
}

ssize_t detail::read_full(ReadCall call, int descriptor, void* buffer, std::size_t size) noexcept {
  return transfer_all(call, descriptor, static_cast<unsigned char*>(buffer), size, true);
}

ssize_t detail::write_full(WriteCall call, int descriptor, const void* data, std::size_t size) noexcept {
  return transfer_all(call, descriptor, static_cast<const unsigned char*>(data), size, false);
}

int detail::close_once(CloseCall call, int descriptor) noexcept {
  const int saved_errno = errno;
  // Never retried: Linux frees the descriptor before close can fail, EINTR included.
  const int error = call(descriptor) == 0 || errno == EINTR ? 0 : errno;
  errno = saved_errno;
  return error;
}

}  // namespace xpon::core
