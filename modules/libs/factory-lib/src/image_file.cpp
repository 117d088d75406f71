#include "xpon/factory/factory_data.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace xpon::factory {

int read_image_file(const std::string& path, std::vector<std::uint8_t>& bytes) {
  bytes.clear();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  bytes.assign(kMaxImageSize, 0);
  std::size_t filled = 0;
  int failure = 0;
  while (filled < bytes.size()) {
    const ssize_t count = ::read(fd, bytes.data() + filled, bytes.size() - filled);
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      failure = errno;
      break;
    }
    if (count == 0) {
      break;
    }
    filled += static_cast<std::size_t>(count);
  }
  ::close(fd);
  bytes.resize(failure == 0 ? filled : 0);
  return failure;
}

}  // namespace xpon::factory
