#include "HostFixture.h"
#include "StreamFixture.h"

#include <sys/socket.h>

namespace
{

typedef std::vector<std::size_t> Sizes;

const char CONFIG[] = "3,1,9:10,n:11,n:20,s:300,o";

} // namespace

/// How cycles are handed to the kernel.
class SendCallsTest : public StreamFixture
{
protected:
    void TearDown() override { SendHooks::clear(); }

    std::vector<std::string> streamAFewCycles()
    {
        openQueue(CONFIG);
        auto client = connectClient();
        reachNormalData({{300, "once!"}});
        deliver({{10, "ab"}, {11, ""}, {20, "xy"}});
        std::vector<std::string> result;
        for (int k = 0; k < 4; ++k) {
            result.push_back(shown(client->readCycle()));
        }
        return result;
    }

    const std::vector<std::string> CYCLES = {"0/0: 300.-1=once!", "1/0: 10=ab 11= 20.0=x", "2/0: 20.1=y",
                                             "3/0: 20.2="};
};

TEST_F(SendCallsTest, OneCallForEachHeaderAndEachSlice)
{
    EXPECT_EQ(streamAFewCycles(), CYCLES);
    const Sizes expected = {12, 20, 5,                                   // once
                            12, 20, 2,  20,  20,  1,  20,  208, 20, 256, // a slice of no bytes makes no call
                            12, 20, 1,  20,  208, 20, 256,               //
                            12, 20, 20, 208, 20,  256};
    const std::vector<SendHooks::SendCall> calls = SendHooks::sendCalls();
    Sizes sizes;
    for (const SendHooks::SendCall& call : calls) {
        sizes.push_back(call.byteSize);
        EXPECT_EQ(call.flags, MSG_NOSIGNAL);
        EXPECT_EQ(call.descriptor, calls[0].descriptor);
    }
    EXPECT_EQ(sizes, expected);
}

class FailingSendTest : public HostFixture
{
};

TEST_F(FailingSendTest, EndsTheConnectionAndTheNextClientIsRegular)
{
    const Frame frame = {{300, "once"}, {10, "data"}};
    // From the first header of a transfer to the description in its first NORMAL cycle, and a kernel that
    // takes nothing.
    const struct
    {
        std::size_t index;
        ssize_t result;
    } cases[] = {{0, -1}, {1, -1}, {2, 0}, {3, -1}, {5, -1}, {9, -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.index);
        start("1,1,9:10,n:300,o");
        SendHooks::failSend(c.index, c.result);
        StreamClient client(m_port);
        EXPECT_TRUE(waitFor([&] {
            deliver(frame); // expects success
            return SendHooks::sendFailed();
        }));
        EXPECT_TRUE(client.waitForEnd());

        StreamClient next(m_port);
        const WireCycle once = deliverAndRead(next, frame);
        EXPECT_TRUE(once.complete && once.isOnce());
        EXPECT_EQ(once.find(10998), nullptr);
        const WireCycle normal = deliverAndRead(next, frame);
        EXPECT_TRUE(normal.complete && !normal.isOnce());
        EXPECT_EQ(normal.channels(), std::vector<std::int32_t>{10});
        EXPECT_EQ(normal.counter, once.counter + 1);
    }
}
