#include "xpon/tool/command_line.hpp"

#include "xpon/tool/console.hpp"

#include <pthread.h>

#include <exception>

namespace xpon::tool {

void block_stop_signals() {
  const sigset_t signals = stop_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int run_command_line(CLI::App& app, int argc, char** argv, const std::function<int()>& command) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? kExitOk : kExitUsage;
  }
  try {
    return command();
  } catch (const UsageError& error) {
    print_error(app.get_name(), error.what());
    return kExitUsage;
  } catch (const std::exception& error) {
    print_error(app.get_name(), error.what());
    return kExitFailed;
  }
}

}  // namespace xpon::tool
