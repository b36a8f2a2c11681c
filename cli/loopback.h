// One HTTP/1.1 request to a frame server on 127.0.0.1, for the subcommands that drive one
// (`zerlan ctl`, `zerlan demo`).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace zerlan::cli {

struct HttpAnswer {
  int status = 0;  // 0: the bytes that came back are no HTTP/1.x answer
  std::string body;
};

// Sends METHOD PATH on a fresh connection with "Connection: close" (a POST carries `body` as
// JSON) and reads until the server closes or stays silent for `timeout`. Nothing when no server
// accepts the connection or takes the request.
std::optional<HttpAnswer> loopbackRequest(uint16_t port, const std::string& method,
                                          const std::string& path, const std::string& body,
                                          std::chrono::seconds timeout);

}  // namespace zerlan::cli
