#pragma once

// What the IPC component tests run in: a temporary XPON_ROOT for the endpoints of this process,
// child processes (the xpon-ipc-bus program and the tools), polling with a deadline, and the
// answer of an echoing request handler.

#include "xpon/ipc/ipc.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

namespace xpon::test {

/// The answer of an echoing handler: the request's own payload, result 1, the request's tag.
inline ipc::Response echo_response(const ipc::Request& request) {
  ipc::Response response;
  response.payload = request.payload;
  response.reply_tag = request.reply_to.value().tag;
  response.result = 1;
  return response;
}

/// Subscribes to the key a handler that answers every request with echo_response.
inline core::Result<void> serve_echo(ipc::IIpc& server, ipc::Key key) {
  return server.subscribe_request(key, [&server](const ipc::Request& request) -> core::Result<void> {
    return server.send_response(request.reply_to.value().address, echo_response(request));
  });
}

}  // namespace xpon::test
