#include "cli/loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "server/platform.h"
#include "transport/FetchJPEG.h"

namespace zerlan::cli {

std::optional<HttpAnswer> loopbackRequest(uint16_t port, const std::string& method,
                                          const std::string& path, const std::string& body,
                                          std::chrono::seconds timeout) {
  int fd = platform::openSocket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return std::nullopt;
  timeval limit{static_cast<decltype(timeval::tv_sec)>(timeout.count()), 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  if (!transport::connectLoopback(fd, transport::loopbackEndpoint(port))) {
    close(fd);
    return std::nullopt;
  }
  std::string request = method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" +
                        std::to_string(port) + "\r\nConnection: close\r\n";
  if (method == "POST") {
    request += "Content-Type: application/json\r\nContent-Length: " +
               std::to_string(body.size()) + "\r\n";
  }
  request += "\r\n" + body;
  for (size_t sent = 0; sent < request.size();) {
    ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, platform::kSendNoSignal);
    if (n <= 0) {
      close(fd);
      return std::nullopt;
    }
    sent += static_cast<size_t>(n);
  }
  std::string raw;
  char buffer[16384];
  ssize_t n;
  while ((n = recv(fd, buffer, sizeof buffer, 0)) > 0) raw.append(buffer, static_cast<size_t>(n));
  const bool timedOut = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  close(fd);
  HttpAnswer answer;
  answer.silent = raw.empty() && timedOut;
  size_t headEnd = raw.find("\r\n\r\n");
  if (headEnd == std::string::npos || std::sscanf(raw.c_str(), "HTTP/1.%*d %d", &answer.status) != 1) {
    answer.status = 0;
    return answer;
  }
  answer.body = raw.substr(headEnd + 4);
  return answer;
}

bool isZerlanStatus(const nlohmann::json& status) {
  return status.is_object() && status.contains("address") && status["address"].is_string() &&
         status.contains("source_kind") && status["source_kind"].is_string() &&
         status.contains("frames_served") && status["frames_served"].is_number() &&
         status.contains("mode") && status["mode"].is_string();
}

PortHolder whoListens(uint16_t port) {
  auto answer = loopbackRequest(port, "GET", "/status", {}, std::chrono::seconds(2));
  if (!answer) return {};
  if (answer->status == 0) return {PortHolder::Kind::Other, "it does not answer HTTP"};
  auto status = nlohmann::json::parse(answer->body, nullptr, false);
  if (answer->status == 200 && isZerlanStatus(status)) {
    return {PortHolder::Kind::Zerlan, status["address"].get<std::string>() + ", serving " +
                                          status.value("source", std::string("?"))};
  }
  return {PortHolder::Kind::Other, "its GET /status answers HTTP " + std::to_string(answer->status) +
                                       (answer->status == 200 ? " with no zerlan status" : "")};
}

std::string findListenerCommand(uint16_t port) {
  const std::string p = std::to_string(port);
  return platform::kSystemName == "macOS" ? "lsof -i :" + p : "ss -ltnp 'sport = :" + p + "'";
}

std::string foreignListenerText(uint16_t port, const PortHolder& holder) {
  return "another program, not a zerlan frame server, listens on 127.0.0.1:" + std::to_string(port) + " (" +
         holder.description + "): find it with " + findListenerCommand(port) + " and stop it";
}

std::string portTakenText(uint16_t port) {
  const std::string taken = "port " + std::to_string(port) + " is in use";
  PortHolder holder = whoListens(port);
  switch (holder.kind) {
    case PortHolder::Kind::Zerlan:
      return taken + " by another zerlan serve (" + holder.description + "): stop it (find it with " +
             findListenerCommand(port) + ")";
    case PortHolder::Kind::Other:
      return taken + ": " + foreignListenerText(port, holder);
    case PortHolder::Kind::Nothing:
      break;
  }
  return taken + ": find what holds it with " + findListenerCommand(port) + " and stop it";
}

}  // namespace zerlan::cli
