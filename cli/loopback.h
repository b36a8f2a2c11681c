// One HTTP/1.1 request to a frame server on 127.0.0.1, for the subcommands that drive one
// (`zerlan ctl`, `zerlan demo`).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace zerlan::cli {

struct HttpAnswer {
  int status = 0;  // 0: the bytes that came back are no HTTP/1.x answer
  std::string body;
  bool silent = false;  // nothing came back within the time-out (status 0)
};

// Sends METHOD PATH on a fresh connection with "Connection: close" (a POST carries `body` as
// JSON) and reads until the server closes or stays silent for `timeout`. Nothing when no server
// accepts the connection or takes the request.
std::optional<HttpAnswer> loopbackRequest(uint16_t port, const std::string& method,
                                          const std::string& path, const std::string& body,
                                          std::chrono::seconds timeout);


// Whether a GET /status answer is a zerlan frame server's: the fields that tell it from any other
// program's JSON.
bool isZerlanStatus(const nlohmann::json& status);

// What listens on 127.0.0.1:port, told by its GET /status.
struct PortHolder {
  enum class Kind { Nothing, Zerlan, Other } kind = Kind::Nothing;
  // Zerlan: "http://127.0.0.1:47654/, serving test pattern"; Other: what it answered, such as
  // "its GET /status answers HTTP 404".
  std::string description;
};
PortHolder whoListens(uint16_t port);

// How to find the program that listens on a port, on this system: "ss -ltnp 'sport = :47654'".
std::string findListenerCommand(uint16_t port);

// For a port that another program holds: "another program, not a zerlan frame server, listens on
// 127.0.0.1:47654 (its GET /status answers HTTP 404): find it with ... and stop it".
std::string foreignListenerText(uint16_t port, const PortHolder& holder);

// For a port that a server cannot listen on because something does: which it is and what to do,
// "port 47654 is in use by another zerlan serve (...): stop it (find it with ...)".
std::string portTakenText(uint16_t port);

}  // namespace zerlan::cli
