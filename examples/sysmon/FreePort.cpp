#include "FreePort.h"

#include <cstdint>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace Sysmon
{

namespace
{

const int LEAST_PORT = 1000;
const int ATTEMPTS = 100;

/// Binds `port`, lets it go again and returns its number; -1 if that fails.
int tryPort(int port)
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor == -1) {
        return -1;
    }
    // As the library does: connections of an earlier run that are still closing don't matter.
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    socklen_t size = sizeof address;
    const bool ok = bind(descriptor, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                    listen(descriptor, 1) == 0 &&
                    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    close(descriptor);
    return ok ? ntohs(address.sin_port) : -1;
}

} // namespace

int findPort(int wanted)
{
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        const int port = tryPort(wanted);
        if (port == -1) {
            break;
        }
        if (port >= LEAST_PORT) {
            return port;
        }
    }
    throw std::runtime_error(wanted == 0 ? "there is no free port"
                                         : "port " + std::to_string(wanted) + " can't be bound");
}

} // namespace Sysmon
