#include "xpon/core/result.hpp"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>

namespace xpon::core {

std::string_view error_name(Error error) noexcept {
  switch (error) {
    case Error::NoError:
      return "No error";
    case Error::InvalidInputArg:
      return "InvalidInputArg";
    case Error::CommonError:
      return "CommonError";
    case Error::Exception:
      return "Exception";
    case Error::ErrorCApi:
      return "ErrorCApi";
    case Error::NotImplemented:
      return "NotImplemented";
    case Error::Already:
      return "Already";
    case Error::InvalidState:
      return "InvalidState";
    case Error::Empty:
      return "Empty";
    case Error::Overflow:
      return "Overflow";
  }
  return "Unknown error";
}

ErrorPayload::ErrorPayload(const Error& code, const std::source_location& where)
    : error(code), info(ErrorInfo{std::nullopt, where}) {}

ErrorPayload::ErrorPayload(const Error& code, const std::string& text, const std::source_location& where)
    : error(code), info(ErrorInfo{text, where}) {}

std::string ErrorPayload::to_string() const {
  std::string text = fmt::format("Error: {}", error_name(error));
  if (info && info->message && !info->message->empty()) {
    return fmt::format("{}. Message: {}.", text, *info->message);
  }
  return text;
}

std::ostream& operator<<(std::ostream& out, const Error& error) {
  return out << error_name(error);
}

std::ostream& operator<<(std::ostream& out, const ErrorPayload& payload) {
  if (!payload.info) {
    std::fputs("xpon::core: an ErrorPayload without info was printed\n", stderr);
    std::abort();
  }
  const auto& info = *payload.info;
  const auto& where = info.location;
  // A default-made location has null file and function names.
  const char* file = where.file_name() != nullptr ? where.file_name() : "";
  const char* function = where.function_name() != nullptr ? where.function_name() : "";
  return out << fmt::format("[{}]: {} ({}:{}): {}", error_name(payload.error), info.message.value_or(""), file,
                            where.line(), function);
}

void abort_on_wrong_access(const char* what) noexcept {
  std::fprintf(stderr, "xpon::core::Result: %s\n", what);
  std::abort();
}

}  // namespace xpon::core
