#include "ZmqTap.h"

#include <chrono>
#include <cstring>
#include <zmq.h>

ZmqTap::ZmqTap()
    : m_context(zmq_ctx_new()), m_push(zmq_socket(m_context, ZMQ_PUSH)),
      m_pull(zmq_socket(m_context, ZMQ_PULL))
{
    const int noLinger = 0;
    zmq_setsockopt(m_push, ZMQ_LINGER, &noLinger, sizeof noLinger);
    zmq_bind(m_push, "tcp://127.0.0.1:*");
    char endpoint[64];
    std::size_t length = sizeof endpoint;
    zmq_getsockopt(m_push, ZMQ_LAST_ENDPOINT, endpoint, &length);
    zmq_connect(m_pull, endpoint);
    m_thread = std::thread([this] { run(); });
}

ZmqTap::~ZmqTap()
{
    zmq_close(m_push);
    zmq_ctx_shutdown(m_context); // ends the reader's wait
    m_thread.join();
    zmq_close(m_pull);
    zmq_ctx_term(m_context);
}

bool ZmqTap::apply(const AlgoMeasBuffer* buffers, std::size_t count)
{
    std::size_t size = 0;
    for (std::size_t k = 0; k < count; ++k) {
        size += buffers[k].sizeTotal;
    }
    zmq_msg_t message;
    zmq_msg_init_size(&message, size);
    char* next = static_cast<char*>(zmq_msg_data(&message));
    for (std::size_t k = 0; k < count; ++k) {
        std::memcpy(next, buffers[k].buffer, buffers[k].sizeTotal);
        next += buffers[k].sizeTotal;
    }
    if (zmq_msg_send(&message, m_push, ZMQ_DONTWAIT) < 0) {
        zmq_msg_close(&message);
        return false;
    }
    return true;
}

void ZmqTap::awaitFrames(std::uint64_t total) const
{
    while (m_frames < total) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void ZmqTap::run()
{
    zmq_msg_t message;
    zmq_msg_init(&message);
    while (zmq_msg_recv(&message, m_pull, 0) >= 0) {
        ++m_frames;
    }
    zmq_msg_close(&message);
}
