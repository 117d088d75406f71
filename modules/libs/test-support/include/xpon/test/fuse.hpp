#pragma once

#include <string>

namespace xpon::test {

/// Why FUSE cannot be used here (the device is not usable, or fusermount3 is missing), or an empty
/// text when it can; the paths are parameters only so that the check itself can be tested.
std::string fuse_unavailable_reason(const std::string& device = "/dev/fuse",
                                    const std::string& fusermount = "/bin/fusermount3");

/// True when the environment has CI=true: there every test that can run must run, so a skip is a failure.
bool running_in_ci();

}  // namespace xpon::test
