#pragma once

#include <sys/statvfs.h>

#include <cstdarg>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace xpon::host {

/// The calls the system functions make to the host they run on, behind one narrow seam so that
/// the functions keep their decisions and tests reach every failure path with a fake. Each call
/// behaves as the C library call of the same name: the same return values, errno set the same way.
class IHost {
 public:
  virtual ~IHost() = default;

  /// getloadavg(3): fills up to `count` load averages and returns how many it filled, or -1.
  virtual int getloadavg(double* averages, int count) = 0;

  /// get_phys_pages(3): the number of physical memory pages, or -1 with errno set.
  virtual long get_phys_pages() = 0;

  /// get_avphys_pages(3): the number of available physical memory pages, or -1 with errno set.
  virtual long get_avphys_pages() = 0;

  /// statvfs(3) of the file system holding `path` (a real path, already resolved through
  /// core::host_path where it is a fixed path of the system); 0, or -1 with errno set.
  virtual int statvfs(const char* path, struct statvfs* out) = 0;

  /// The whole text of a file such as "/proc/meminfo"; empty when it cannot be opened, with errno set.
  virtual std::optional<std::string> read_file(const char* path) = 0;

  /// vsnprintf(3): the formatting call whose return value the functions check.
  virtual int vformat(char* out, std::size_t size, const char* format, std::va_list arguments)
      __attribute__((format(printf, 4, 0))) = 0;

  /// snprintf(3) through vformat, so that the compiler checks the arguments against the format.
  int format(char* out, std::size_t size, const char* format, ...) __attribute__((format(printf, 4, 5)));

 protected:
  IHost() = default;
  IHost(const IHost&) = default;
  IHost& operator=(const IHost&) = default;
};

/// The real host: every call goes straight to the C library.
class SystemHost final : public IHost {
 public:
  int getloadavg(double* averages, int count) override;
  long get_phys_pages() override;
  long get_avphys_pages() override;
  int statvfs(const char* path, struct statvfs* out) override;
  std::optional<std::string> read_file(const char* path) override;
  int vformat(char* out, std::size_t size, const char* format, std::va_list arguments) override
      __attribute__((format(printf, 4, 0)));
};

/// The process's one real host, shared by every function that is not handed another.
std::shared_ptr<IHost> system_host();

}  // namespace xpon::host
