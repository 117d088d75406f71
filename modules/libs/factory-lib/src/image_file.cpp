#include "xpon/core/file_descriptor.hpp"
#include "xpon/factory/factory_data.hpp"

#include <fcntl.h>

#include <cerrno>

namespace xpon::factory {

int read_image_file(const std::string& path, std::vector<std::uint8_t>& bytes) {
  bytes.clear();
  const core::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    return errno;
  }
  bytes.assign(kMaxImageSize, 0);
  const ssize_t filled = core::read_full(file.get(), bytes.data(), bytes.size());
  if (filled < 0) {
    const int failure = errno;
    bytes.clear();
    return failure;
  }
  bytes.resize(static_cast<std::size_t>(filled));
  return 0;
}

}  // namespace xpon::factory
