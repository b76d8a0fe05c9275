#ifndef LODESTONE_TEST_HOSTFIXTURE_H
#define LODESTONE_TEST_HOSTFIXTURE_H

#include "HostFrame.h"
#include "Lodestone.h"
#include "StreamClient.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// A host that uses the public functions alone, on a free port. The constant-buffer store belongs to the
/// process, so each case with constant buffers has channels of its own.
class HostFixture : public ::testing::Test
{
protected:
    void TearDown() override { Lodestone::Lodestone_Init(0, ""); }

    /// `tail` is what follows the port: "<split>,<intermittent>,<length>:<channel>,<type>:...".
    std::string config(const std::string& tail) const { return "0," + std::to_string(m_port) + "," + tail; }
    /// Any number but 0 enables.
    void start(const std::string& tail) { ASSERT_EQ(0, Lodestone::Lodestone_Init(-1, config(tail))); }

    /// One call of the host, which must succeed.
    static void deliver(const Frame& frame, bool constantBuffers = false)
    {
        std::vector<AlgoMeasBuffer> array = arrayOf(frame);
        const auto size = static_cast<alif_uint32_t>(array.size());
        EXPECT_EQ(0, Lodestone::Lodestone_Apply(array.data(), size, constantBuffers ? 1 : 0));
    }

    /// Delivers `frame` until something can be read, and reads one cycle.
    static WireCycle deliverAndRead(StreamClient& client, const Frame& frame)
    {
        EXPECT_TRUE(waitFor([&] {
            if (!client.somethingWaits()) {
                deliver(frame);
            }
            return client.somethingWaits();
        }));
        return client.readCycle();
    }

    const int m_port = freePort();
};

#endif
