#pragma once

#include <memory>
#include <span>
#include <string>

namespace xpon::logger {

/// Where the journal sink hands its entries; the production writer sends them to systemd-journald.
class IJournalWriter {
 public:
  virtual ~IJournalWriter() = default;

  /// Sends one entry made of "FIELD=value" strings; returns 0, or a negative errno value on failure.
  virtual int send(std::span<const std::string> fields) = 0;

 protected:
  IJournalWriter() = default;
  IJournalWriter(const IJournalWriter&) = default;
  IJournalWriter& operator=(const IJournalWriter&) = default;
};

/// The writer that sends entries to the local systemd journal (sd_journal_sendv).
std::shared_ptr<IJournalWriter> make_systemd_journal_writer();

}  // namespace xpon::logger
