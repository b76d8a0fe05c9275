#include "LoopbackPair.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

LoopbackPair::LoopbackPair()
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), length);
    ::listen(listener, 1);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    m_reader = std::make_unique<DrainingReader>(ntohs(address.sin_port));
    m_sock = ::accept(listener, nullptr, nullptr);
    ::close(listener);
}

LoopbackPair::~LoopbackPair()
{
    ::shutdown(m_sock, SHUT_RDWR);
    ::close(m_sock);
}
