#ifndef LODESTONE_TEST_STREAMFIXTURE_H
#define LODESTONE_TEST_STREAMFIXTURE_H

#include "ConfigStringParser.h"
#include "HostFrame.h"
#include "QueueProbe.h"
#include "StreamClient.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

/// A queue on a free port, driven frame by frame, and clients that read it.
class StreamFixture : public ::testing::Test
{
protected:
    /// Builds the queue. `config` is what follows the port:
    /// "<split>,<intermittent>,<length>:<channel>,<type>:...".
    void openQueue(const std::string& config)
    {
        m_queue.reset();
        m_port = freePort();
        Lodestone::ConfigStringParser parser;
        parser.parseString("0," + std::to_string(m_port) + "," + config);
        m_queue = std::make_unique<Lodestone::SondeBufferQueue>(parser.getConfig());
        m_probe = std::make_unique<Lodestone::QueueProbe>(*m_queue);
    }

    /// One delivery; what addBuffers returned.
    Lodestone::PerPackageDiag* deliver(const Frame& frame, bool constantBuffer = false)
    {
        std::vector<AlgoMeasBuffer> array = arrayOf(frame);
        return m_queue->addBuffers(array.data(), static_cast<std::uint32_t>(array.size()), constantBuffer);
    }

    /// Connects a client and waits until the server has put it in place of the one before.
    std::unique_ptr<StreamClient> connectClient(int receiveBuffer = 0)
    {
        const std::int64_t before = m_probe->connectedID();
        auto client = std::make_unique<StreamClient>(m_port, receiveBuffer);
        EXPECT_TRUE(client->connected());
        EXPECT_TRUE(waitFor([&] { return m_probe->connected() && m_probe->connectedID() != before; }));
        return client;
    }

    /// Delivers `frame` until the transfer carries normal data.
    void reachNormalData(const Frame& frame)
    {
        EXPECT_TRUE(waitFor([&] {
            if (m_probe->state() == 2 && m_probe->senderRunning() && !m_probe->restartMarked()) {
                return true;
            }
            deliver(frame);
            return false;
        }));
    }

    std::unique_ptr<Lodestone::SondeBufferQueue> m_queue;
    std::unique_ptr<Lodestone::QueueProbe> m_probe;
    int m_port = 0;
};

#endif
