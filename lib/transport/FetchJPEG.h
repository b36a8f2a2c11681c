// One frame from the frame server on the loopback interface, over a fresh TCP connection.
//
// ZerlanFetchJPEG() connects to 127.0.0.1 at ZerlanFramePort() (47654 unless ZERLAN_FRAME_PORT
// names another, see FramePort.h), sends one fixed "GET /frame" request and returns
// every byte after the first blank line of an "HTTP/1.1 200" or "HTTP/1.0 200" answer, read
// until the server closes (or stays silent for 1 s). The whole exchange has 2 s and the body
// 32 MiB (kMaxFrameBytes): past either there is no frame. Any failure is the same null result; it
// never throws, never logs and keeps no state, so any thread may call it, several at once. It
// blocks its caller for the whole exchange. The result is owned by the caller (+1).
#pragma once

#include "objc/Runtime.h"

#include <netinet/in.h>

zerlan::objc::Strong<> ZerlanFetchJPEG();

namespace zerlan::transport {

inline constexpr uint16_t kFramePort = 47654;

// The same exchange against another endpoint (tests run misbehaving servers on free ports; the
// probe command can point at a server on another port).
zerlan::objc::Strong<> fetchJPEG(const sockaddr_in &endpoint);

// 127.0.0.1 at the given port.
sockaddr_in loopbackEndpoint(uint16_t port);

// connect(2) of the unconnected TCP socket `fd` to `endpoint`, true once connected to something
// else. A connection to a port of the system's ephemeral range (47654 is one on Linux) where
// nothing listens may be given that very port as its own and connect to itself; it would then
// hold the port that a starting server is about to bind. Such a connection is reset, leaving
// nothing behind, and counts as refused. The caller closes `fd` either way.
bool connectLoopback(int fd, const sockaddr_in &endpoint);

} // namespace zerlan::transport
