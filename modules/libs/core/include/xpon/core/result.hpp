#pragma once

#include <boost/outcome/basic_result.hpp>
#include <boost/outcome/policy/base.hpp>

#include <cstdint>
#include <optional>
#include <ostream>
#include <source_location>
#include <string>
#include <string_view>

namespace xpon::core {

namespace outcome = boost::outcome_v2;

/// Error codes of every fallible operation; 0 is success.
enum class Error : std::int32_t {
  NoError = 0,
  InvalidInputArg = 1,
  CommonError = 2,
  Exception = 3,
  ErrorCApi = 4,
  NotImplemented = 5,
  Already = 6,
  InvalidState = 7,
  Empty = 8,
  Overflow = 9,
};

/// The printed name of a code; any value outside 0 to 9 is "Unknown error".
std::string_view error_name(Error error) noexcept;

/// An error code with an optional message and the place where the error was made.
struct ErrorPayload {
  struct ErrorInfo {
    std::optional<std::string> message;
    std::source_location location;
    /// Set once the error's own-location line has been logged; copies of the error carry it,
    /// so the callers above add only their own line while the error travels up.
    bool logged = false;
  };

  /// An empty payload (code 0, no info); Outcome needs its error type default-made.
  ErrorPayload() noexcept : error(Error::NoError) {}

  /// Makes a payload with no message, recording where it was made.
  ErrorPayload(const Error& code,  // NOLINT(google-explicit-constructor): results are made from bare codes
               const std::source_location& where = std::source_location::current());

  /// Makes a payload with a message (copied), recording where it was made.
  ErrorPayload(const Error& code, const std::string& text,
               const std::source_location& where = std::source_location::current());

  /// The short text: "Error: <name>" or "Error: <name>. Message: <message>.".
  [[nodiscard]] std::string to_string() const;

  Error error;
  std::optional<ErrorInfo> info;
};

/// Writes the name of the code.
std::ostream& operator<<(std::ostream& out, const Error& error);

/// Writes "[<name>]: <message> (<file>:<line>): <function>"; the payload must carry its info.
std::ostream& operator<<(std::ostream& out, const ErrorPayload& payload);

/// Reports a wrong access to a result (value of an error, error of a value) and aborts.
[[noreturn]] void abort_on_wrong_access(const char* what) noexcept;

/// The no-value policy of Result: reading the side that is not there is a programming error.
struct XponPolicy : outcome::policy::base {
  template <class Impl>
  static constexpr void wide_value_check(Impl&& self) {
    if (!base::_has_value(self)) {
      abort_on_wrong_access("value read from a Result that holds an error");
    }
  }

  template <class Impl>
  static constexpr void wide_error_check(Impl&& self) {
    if (!base::_has_error(self)) {
      abort_on_wrong_access("error read from a Result that holds a value");
    }
  }

  template <class Impl>
  static constexpr void wide_exception_check(Impl&& self) {
    if (!base::_has_exception(self)) {
      abort_on_wrong_access("exception read from a Result that holds none");
    }
  }
};

/// The result of every fallible operation: a value of T, or an ErrorPayload.
template <typename T>
using Result = outcome::basic_result<T, ErrorPayload, XponPolicy>;

/// Success of a Result<void> (or of any Result whose value is default-made).
using outcome::success;

}  // namespace xpon::core
