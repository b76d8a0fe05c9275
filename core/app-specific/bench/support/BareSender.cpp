#include "BareSender.h"

#include <sys/socket.h>

void BareSender::cycle(const std::vector<AlgoMeasBuffer>& buffers)
{
    const char record[256] = {};
    send(record, 12);
    for (const AlgoMeasBuffer& buffer : buffers) {
        send(record, 20);
        send(buffer.buffer, buffer.sizeTotal);
    }
    send(record, 20);
    send(record, 208);
    send(record, 20);
    send(record, 256);
}

void BareSender::send(const void* data, std::size_t size)
{
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t taken = ::send(m_road.sock(), next, size, MSG_NOSIGNAL);
        if (taken <= 0) {
            return;
        }
        next += taken;
        size -= static_cast<std::size_t>(taken);
    }
}
