// The one thing about sending on a socket that differs between the platforms: keeping a peer
// that closes mid-request from killing the app with SIGPIPE. Each platform has its own file.
#pragma once

namespace zerlan::transport {

// Prepares a new socket (a no-op where the send flags do the job).
void preventSigPipe(int socket);

// Flags for send().
int sendFlags();

} // namespace zerlan::transport
