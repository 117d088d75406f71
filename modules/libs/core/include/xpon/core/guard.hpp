#pragma once

#include "xpon/core/result.hpp"
#include "xpon/logger/ilogger.hpp"

#include <exception>
#include <source_location>
#include <type_traits>
#include <utility>

namespace xpon::core {

/// Logs an error on its way up a call chain: the error's own line at its recorded location
/// the first time (when it carries its info; the payload is marked so), then the same text at
/// the caller's location; one line per level of the chain.
void log_error(logger::ILogger& logger, ErrorPayload& error,
               const std::source_location& caller = std::source_location::current());

/// As above for an error that goes no further (the end of a chain): the own line is logged
/// unless the error says it already was, but the payload is not marked.
void log_error(logger::ILogger& logger, const ErrorPayload& error,
               const std::source_location& caller = std::source_location::current());

/// Logs an error result as log_error does and hands it back (marked), for `return propagate(...)`.
template <typename T>
Result<T> propagate(logger::ILogger& logger, Result<T> result,
                    const std::source_location& caller = std::source_location::current()) {
  if (result.has_error()) {
    log_error(logger, result.assume_error(), caller);
  }
  return result;
}

/// Logs a caught exception with the guarded-call texts and returns the Error::Exception payload.
ErrorPayload log_exception(logger::ILogger& logger, std::exception_ptr exception,
                           const std::source_location& where = std::source_location::current());

/// Calls `call` (which returns a Result) so that no exception leaves it: a std::exception is
/// logged as "An std::exception was thrown: {} ", anything else as "An exception was thrown. ",
/// and either becomes Error::Exception.
template <typename Call>
auto guarded_call(logger::ILogger& logger, Call&& call,
                  const std::source_location& where = std::source_location::current()) -> std::invoke_result_t<Call&&> {
  try {
    return std::forward<Call>(call)();
  } catch (...) {
    return log_exception(logger, std::current_exception(), where);
  }
}

/// Checks the integer return of a C library call: 0 is success; anything else is logged
/// ("C API function returned {:d}, errno={:d}" with errno then reset to 0, or
/// "C API function returned {:d}") and becomes Error::ErrorCApi.
Result<void> check_c_api(logger::ILogger& logger, int returned,
                         const std::source_location& where = std::source_location::current());

}  // namespace xpon::core
