#pragma once

#include "xpon/test/fuse.hpp"

#include <gtest/gtest.h>

#include <string>

/// Ends the current test function when `reason` (a text) is not empty: a skip with that reason, or a
/// failure where CI=true, since CI provides what the test needs and a skip there would hide a fault.
#define XPON_SKIP_OR_FAIL_IN_CI(reason)                                                      \
  do {                                                                                       \
    const std::string& xpon_unavailable_reason_ = (reason);                                  \
    if (!xpon_unavailable_reason_.empty()) {                                                 \
      if (::xpon::test::running_in_ci()) {                                                   \
        GTEST_FAIL() << "CI=true, so this test must run, but: " << xpon_unavailable_reason_; \
      }                                                                                      \
      GTEST_SKIP() << xpon_unavailable_reason_;                                              \
    }                                                                                        \
  } while (false)
