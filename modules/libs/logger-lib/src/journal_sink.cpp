#include "journal_sink.hpp"

#include "registry.hpp"
#include "xpon/logger/level.hpp"

// The location fields are those of the logging statement, never of this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/uio.h>
#include <systemd/sd-journal.h>

#include <fmt/format.h>

#include <cerrno>
#include <limits>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace xpon::logger {

namespace {

class SystemdJournalWriter final : public IJournalWriter {
 public:
  int send(std::span<const std::string> fields) override {
    std::vector<iovec> vectors;
    vectors.reserve(fields.size());
    for (const auto& field : fields) {
      // sd_journal_sendv only reads the buffers.
      vectors.push_back(
          iovec{const_cast<char*>(field.data()), field.size()});  // NOLINT(cppcoreguidelines-pro-type-const-cast)
    }
    return sd_journal_sendv(vectors.data(), static_cast<int>(vectors.size()));
  }
};

}  // namespace

std::shared_ptr<IJournalWriter> make_systemd_journal_writer() {
  return std::make_shared<SystemdJournalWriter>();
}

namespace detail {

JournalSink::JournalSink(std::shared_ptr<IJournalWriter> writer) : writer_(std::move(writer)) {}

void JournalSink::sink_it_(const spdlog::details::log_msg& message) {
  std::vector<std::string> fields;
  fields.reserve(6);
  fields.push_back(fmt::format("MESSAGE={}", message.payload));
  fields.push_back(fmt::format("PRIORITY={}", journal_priority(message.level)));
  fields.push_back(fmt::format("SYSLOG_IDENTIFIER={}", message.logger_name));
  if (message.source.filename != nullptr && message.source.filename[0] != '\0') {
    fields.push_back(fmt::format("CODE_FILE={}", message.source.filename));
  }
  if (message.source.line > 0) {
    fields.push_back(fmt::format("CODE_LINE={}", message.source.line));
  }
  if (message.source.funcname != nullptr && message.source.funcname[0] != '\0') {
    fields.push_back(fmt::format("CODE_FUNC={}", message.source.funcname));
  }
  const int result = writer_->send(fields);
  if (result < 0) {
    // Negating the lowest int would overflow (and trap); no errno is that large anyway.
    const int error = result == std::numeric_limits<int>::min() ? EINVAL : -result;
    report_failure(fmt::format("journal write failed: {}", std::generic_category().message(error)));
  }
}

}  // namespace detail

}  // namespace xpon::logger
