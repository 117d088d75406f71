#include "xpon/core/guard.hpp"

#include <cerrno>
#include <exception>
#include <stdexcept>
#include <utility>

namespace xpon::core {

void log_error(logger::ILogger& logger, const ErrorPayload& error, const std::source_location& caller) {
  const std::string text = error.to_string();
  if (error.info && !error.info->logged) {
    logger.log(logger::kError, text, error.info->location);
  }
  logger.log(logger::kError, fmt::format("{}", text), caller);
}

void log_error(logger::ILogger& logger, ErrorPayload& error, const std::source_location& caller) {
  log_error(logger, std::as_const(error), caller);
  if (error.info) {
    error.info->logged = true;
  }
}

ErrorPayload log_exception(logger::ILogger& logger, std::exception_ptr exception, const std::source_location& where) {
  try {
    std::rethrow_exception(std::move(exception));
  } catch (const std::exception& caught) {
    // The trailing blank is part of the system's text.
    logger.log(logger::kError, fmt::format("An std::exception was thrown: {} ", caught.what()), where);
  } catch (...) {
    logger.log(logger::kError, "An exception was thrown. ", where);
  }
  return {Error::Exception, where};
}

Result<void> check_c_api(logger::ILogger& logger, int returned, const std::source_location& where) {
  if (returned == 0) {
    return success();
  }
  const int saved_errno = errno;
  if (saved_errno != 0) {
    logger.log(logger::kError, fmt::format("C API function returned {:d}, errno={:d}", returned, saved_errno), where);
    errno = 0;
  } else {
    logger.log(logger::kError, fmt::format("C API function returned {:d}", returned), where);
  }
  return ErrorPayload(Error::ErrorCApi, where);
}

}  // namespace xpon::core
