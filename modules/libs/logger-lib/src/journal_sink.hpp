#pragma once

#include "xpon/logger/journal.hpp"

#include <spdlog/sinks/base_sink.h>

#include <memory>
#include <mutex>

namespace xpon::logger::detail {

/// Hands each line to a journal writer as MESSAGE, PRIORITY, SYSLOG_IDENTIFIER (the category),
/// CODE_FILE, CODE_LINE and CODE_FUNC; the journal keeps its own time stamp, so no pattern applies.
class JournalSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit JournalSink(std::shared_ptr<IJournalWriter> writer);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  std::shared_ptr<IJournalWriter> writer_;
};

}  // namespace xpon::logger::detail
