#include "cfg_tool.hpp"

#include "xpon/cfgdb/change_event.hpp"
#include "xpon/ipc/ipc.hpp"

#include <exception>
#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const xpon::cfg_tool::EndpointFactory make_endpoint = []() -> xpon::core::Result<std::shared_ptr<xpon::ipc::IIpc>> {
    try {
      xpon::ipc::ZmqIpcOptions options;
      options.delivery_threads = 1;
      // The tool exits right after publishing: give the bus link time to hand the event over.
      options.linger = std::chrono::milliseconds(1000);
      return xpon::ipc::make_zmq_ipc(xpon::cfgdb::kWriterAddress, "xpon-cfg", options);
    } catch (const std::exception& error) {
      return xpon::core::ErrorPayload{xpon::core::Error::CommonError, error.what()};
    }
  };
  try {
    return xpon::cfg_tool::run(arguments, std::cout, std::cerr, make_endpoint);
  } catch (const std::exception& error) {
    std::cerr << "xpon-cfg: " << error.what() << '\n';
    return xpon::cfg_tool::kFailed;
  }
}
