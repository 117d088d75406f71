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

ssize_t detail::read_once(ReadCall call, int descriptor, void* buffer, std::size_t size) noexcept {
  for (;;) {
    const ssize_t count = call(descriptor, buffer, size);
    if (count >= 0 || errno != EINTR) {
      return count;
    }
  }
}

ssize_t detail::write_once(WriteCall call, int descriptor, const void* data, std::size_t size) noexcept {
  for (;;) {
    const ssize_t count = call(descriptor, data, size);
    if (count >= 0 || errno != EINTR) {
      return count;
    }
  }
}

ssize_t detail::read_full(ReadCall call, int descriptor, void* buffer, std::size_t size) noexcept {
  auto* bytes = static_cast<unsigned char*>(buffer);
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t count = read_once(call, descriptor, bytes + filled, size - filled);
    if (count < 0) {
      return -1;
    }
    if (count == 0) {
      break;
    }
    filled += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(filled);
}

ssize_t detail::write_full(WriteCall call, int descriptor, const void* data, std::size_t size) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::size_t written = 0;
  while (written < size) {
    const ssize_t count = write_once(call, descriptor, bytes + written, size - written);
    if (count < 0) {
      return -1;
    }
    if (count == 0) {
      errno = EIO;
      return -1;
    }
    written += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(written);
}

int detail::close_once(CloseCall call, int descriptor) noexcept {
  const int saved_errno = errno;
  // Never retried: Linux frees the descriptor before close can fail, EINTR included.
  const int error = call(descriptor) == 0 || errno == EINTR ? 0 : errno;
  errno = saved_errno;
  return error;
}

}  // namespace xpon::core
