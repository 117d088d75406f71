#pragma once

#include "xpon/logger/ilogger.hpp"

#include <cstdint>
#include <mutex>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::test {

/// One line written through a RecordingLogger.
struct LogLine {
  int level;
  std::string text;
  std::string file;
  std::uint_least32_t line;
  std::string function;
};

/// A logger that keeps every line in memory so tests can assert texts, levels and locations.
class RecordingLogger : public logger::ILogger {
 public:
  void log(int level, std::string_view text, const std::source_location& location) override {
    std::lock_guard lock(mutex_);
    lines_.push_back(
        LogLine{level, std::string(text), location.file_name(), location.line(), location.function_name()});
  }

  /// A copy of every line written so far, in order.
  [[nodiscard]] std::vector<LogLine> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

  /// The texts written so far, in order.
  [[nodiscard]] std::vector<std::string> texts() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    result.reserve(lines_.size());
    for (const auto& line : lines_) {
      result.push_back(line.text);
    }
    return result;
  }

  /// Whether some line has exactly this text (at this level, when one is given).
  [[nodiscard]] bool contains(std::string_view text, int level = -1) const {
    std::lock_guard lock(mutex_);
    for (const auto& line : lines_) {
      if (line.text == text && (level < 0 || line.level == level)) {
        return true;
      }
    }
    return false;
  }

  /// Forgets every line written so far.
  void clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

}  // namespace xpon::test
