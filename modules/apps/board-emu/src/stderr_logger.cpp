#include "xpon/board_emu/stderr_logger.hpp"

#include <fmt/format.h>

#include <cstdio>

namespace xpon::board_emu {

namespace {

std::string_view level_name(int level) {
  switch (level) {
    case logger::kProgress:
      return "debug";
    case logger::kInfo:
    case logger::kNotice:
      return "info";
    case logger::kWarning:
      return "warning";
    case logger::kError:
      return "error";
    default:
      return "critical";
  }
}

}  // namespace

StderrLogger::StderrLogger(std::string program, int minimum_level)
    : program_(std::move(program)), minimum_level_(minimum_level) {}

void StderrLogger::log(int level, std::string_view text, const std::source_location& /*location*/) {
  if (level < minimum_level_) {
    return;
  }
  const auto line = fmt::format("{}: {}: {}\n", program_, level_name(level), text);
  std::lock_guard lock(mutex_);
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

}  // namespace xpon::board_emu
