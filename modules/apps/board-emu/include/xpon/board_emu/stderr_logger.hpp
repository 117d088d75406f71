#pragma once

#include "xpon/logger/ilogger.hpp"

#include <mutex>
#include <string>

namespace xpon::board_emu {

/// Writes each line to standard error as "<program>: <level>: <text>"; lines below the
/// minimum level are dropped.
class StderrLogger : public logger::ILogger {
 public:
  StderrLogger(std::string program, int minimum_level);

  void log(int level, std::string_view text, const std::source_location& location) override;

 private:
  std::mutex mutex_;
  std::string program_;
  int minimum_level_;
};

}  // namespace xpon::board_emu
