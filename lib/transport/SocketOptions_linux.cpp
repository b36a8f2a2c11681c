#include "transport/SocketOptions.h"

#include <sys/socket.h>

namespace zerlan::transport {

void preventSigPipe(int) {}

int sendFlags()
{
    return MSG_NOSIGNAL;
}

} // namespace zerlan::transport
