#include "transport/SocketOptions.h"

#include <sys/socket.h>

namespace zerlan::transport {

void preventSigPipe(int socket)
{
    int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
}

int sendFlags()
{
    return 0;
}

} // namespace zerlan::transport
