#pragma once

#include "xpon/host/host.hpp"

#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace xpon::test {

/// A host whose readings a test sets: load averages, memory pages, file-system statistics per
/// path and file texts per path. Each call can be told to fail with the C library's return value
/// and errno, and the formatting call can be told to return a chosen value. Every call is recorded
/// by name ("getloadavg", "get_phys_pages", "get_avphys_pages", "statvfs <path>",
/// "read_file <path>", "format"). Thread-safe: a polling thread may call it while a test sets it.
class FakeHost final : public host::IHost {
 public:
  // --- host::IHost ------------------------------------------------------------------------

  int getloadavg(double* averages, int count) override {
    std::lock_guard lock(mutex_);
    calls_.emplace_back("getloadavg");
    if (loadavg_errno_) {
      errno = *loadavg_errno_;
      return loadavg_failure_;
    }
    int filled = 0;
    for (; filled < count && filled < 3; ++filled) {
      averages[filled] = load_averages_[filled];
    }
    return filled;
  }

  long get_phys_pages() override {
    std::lock_guard lock(mutex_);
    calls_.emplace_back("get_phys_pages");
    return pages(phys_pages_errno_, phys_pages_);
  }

  long get_avphys_pages() override {
    std::lock_guard lock(mutex_);
    calls_.emplace_back("get_avphys_pages");
    return pages(avphys_pages_errno_, avphys_pages_);
  }

  int statvfs(const char* path, struct statvfs* out) override {
    std::lock_guard lock(mutex_);
    calls_.emplace_back(std::string("statvfs ") + path);
    const auto found = file_systems_.find(path);
    if (found == file_systems_.end()) {
      errno = ENOENT;
      return -1;
    }
    if (found->second.error_number != 0) {
      errno = found->second.error_number;
      return -1;
    }
    *out = found->second.stats;
    return 0;
  }

  std::optional<std::string> read_file(const char* path) override {
    std::lock_guard lock(mutex_);
    calls_.emplace_back(std::string("read_file ") + path);
    const auto found = files_.find(path);
    if (found == files_.end()) {
      errno = ENOENT;
      return std::nullopt;
    }
    return found->second;
  }

  int vformat(char* out, std::size_t size, const char* format, std::va_list arguments) override
      __attribute__((format(printf, 4, 0))) {
    std::lock_guard lock(mutex_);
    calls_.emplace_back("format");
    // The text is really written, so a test of a forced return value still sees what was formatted.
    const int written = std::vsnprintf(out, size, format, arguments);
    return format_result_ ? *format_result_ : written;
  }

  // --- What a test sets -------------------------------------------------------------------

  /// The three load averages getloadavg fills in (1, 5 and 15 minutes).
  void set_load_averages(double one_minute, double five_minutes, double fifteen_minutes) {
    std::lock_guard lock(mutex_);
    load_averages_[0] = one_minute;
    load_averages_[1] = five_minutes;
    load_averages_[2] = fifteen_minutes;
    loadavg_errno_.reset();
  }

  /// Makes getloadavg return `returned` with errno set to `error_number`, until set_load_averages.
  void fail_getloadavg(int error_number, int returned = -1) {
    std::lock_guard lock(mutex_);
    loadavg_errno_ = error_number;
    loadavg_failure_ = returned;
  }

  /// The page counts get_phys_pages and get_avphys_pages return.
  void set_pages(long physical, long available) {
    std::lock_guard lock(mutex_);
    phys_pages_ = physical;
    avphys_pages_ = available;
    phys_pages_errno_.reset();
    avphys_pages_errno_.reset();
  }

  /// Makes get_phys_pages return -1 with errno set to `error_number`, until set_pages.
  void fail_get_phys_pages(int error_number) {
    std::lock_guard lock(mutex_);
    phys_pages_errno_ = error_number;
  }

  /// Makes get_avphys_pages return -1 with errno set to `error_number`, until set_pages.
  void fail_get_avphys_pages(int error_number) {
    std::lock_guard lock(mutex_);
    avphys_pages_errno_ = error_number;
  }

  /// The statistics statvfs gives for `path`; a path never set fails with ENOENT.
  void set_file_system(const std::string& path, const struct statvfs& stats) {
    std::lock_guard lock(mutex_);
    file_systems_[path] = FileSystem{stats, 0};
  }

  /// Makes statvfs of `path` return -1 with errno set to `error_number`.
  void fail_file_system(const std::string& path, int error_number) {
    std::lock_guard lock(mutex_);
    file_systems_[path] = FileSystem{{}, error_number};
  }

  /// The text read_file gives for `path`; a path never set cannot be opened (ENOENT).
  void set_file(const std::string& path, const std::string& text) {
    std::lock_guard lock(mutex_);
    files_[path] = text;
  }

  /// Makes `path` unreadable again.
  void remove_file(const std::string& path) {
    std::lock_guard lock(mutex_);
    files_.erase(path);
  }

  /// Makes every formatting call return `returned` (after writing the text); empty: the real result.
  void set_format_result(std::optional<int> returned) {
    std::lock_guard lock(mutex_);
    format_result_ = returned;
  }

  /// Every call made so far, by name, in order.
  [[nodiscard]] std::vector<std::string> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }

  /// Forgets the calls recorded so far (readings and failures stay).
  void clear_calls() {
    std::lock_guard lock(mutex_);
    calls_.clear();
  }

 private:
  struct FileSystem {
    struct statvfs stats;
    int error_number;
  };

  static long pages(const std::optional<int>& error_number, long count) {
    if (error_number) {
      errno = *error_number;
      return -1;
    }
    return count;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  double load_averages_[3] = {0.0, 0.0, 0.0};
  std::optional<int> loadavg_errno_;
  int loadavg_failure_ = -1;
  long phys_pages_ = 0;
  long avphys_pages_ = 0;
  std::optional<int> phys_pages_errno_;
  std::optional<int> avphys_pages_errno_;
  std::map<std::string, FileSystem, std::less<>> file_systems_;
  std::map<std::string, std::string, std::less<>> files_;
  std::optional<int> format_result_;
};

}  // namespace xpon::test
