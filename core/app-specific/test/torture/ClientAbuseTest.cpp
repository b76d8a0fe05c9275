#include "AbusiveClient.h"
#include "AllocationHook.h"
#include "ExactStreamFixture.h"
#include "ProcessFigures.h"
#include "StandIn.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

thread_local bool t_inFrame = false; // this thread is a host in the middle of a frame
std::atomic<unsigned> g_sends{0};    // odd while the sender is in the kernel with bytes for a client
// In a frame: calls that wait for time or for a signal, or for the end of a sender that is with a client.
std::atomic<unsigned> g_waits{0};

// The ONCE cycle and the first NORMAL one have fewer bytes than this: clients leave at each of them.
const std::size_t PLACES = 640;

} // namespace

STAND_IN(ssize_t, send, (int sock, const void* data, size_t byteSize, int flags))
{
    ++g_sends;
    const ssize_t taken = __real_send(sock, data, byteSize, flags);
    ++g_sends;
    return taken;
}

// Else the kernel would keep most of ten clients waiting for a second.
STAND_IN(int, listen, (int sock, int backlog))
{
    return __real_listen(sock, backlog + 16);
}

STAND_IN(int, usleep, (useconds_t wait_us))
{
    g_waits += t_inFrame ? 1 : 0;
    return __real_usleep(wait_us);
}

STAND_IN(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex))
{
    g_waits += t_inFrame ? 1 : 0;
    return __real_pthread_cond_wait(condition, mutex);
}

STAND_IN(int, pthread_cond_timedwait,
         (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* moment))
{
    g_waits += t_inFrame ? g_sends % 2 : 0;
    return __real_pthread_cond_timedwait(condition, mutex, moment);
}

/// A host that goes on while its clients do what they like.
class ClientAbuseTest : public ExactStreamFixture
{
protected:
    /// Small buffers, or a large one to fill the kernel's.
    void frame(bool large = false)
    {
        t_inFrame = true;
        deliver(large ? m_large : m_small);
        t_inFrame = false;
        std::this_thread::yield();
    }

    void framesUntil(const std::function<bool()>& done, bool large = false)
    {
        const auto deadline = testDeadline();
        bool reached = false;
        while (!reached && std::chrono::steady_clock::now() < deadline) {
            frame(large);
            reached = done();
        }
        EXPECT_TRUE(reached);
    }

    void regularTransfer()
    {
        beginTransfer(StreamReader::FAST);
        for (int k = 0; k < 500; ++k) {
            ASSERT_NO_FATAL_FAILURE(deliverExactly(m_host->someChannels()));
        }
        endTransfer();
    }

    void oneAtATime(std::size_t leaveAt, int way)
    {
        AbusiveClient client(m_port, way, leaveAt);
        framesUntil([&] { return client.step(); });
        EXPECT_EQ(client.bytesRead(), leaveAt);
    }

    void tenAtATime(std::size_t leaveAt)
    {
        std::list<AbusiveClient> clients;
        for (int k = 0; k < 10; ++k) {
            clients.emplace_back(m_port, k % AbusiveClient::NO_WAYS, leaveAt);
        }
        const auto allHaveBegun = [&] {
            std::ptrdiff_t begun = 0;
            for (AbusiveClient& client : clients) {
                client.step();
                begun += client.begun() ? 1 : 0;
            }
            return begun == 10;
        };
        framesUntil(allHaveBegun);
        for (int k = 0; k < 100; ++k) { // those who haven't been served by then go all the same
            frame();
            allHaveBegun();
        }
    }

    /// The sender hangs in the kernel and the host goes on; then the client goes, or a newcomer has it cut
    /// off.
    void stall(bool untilCutOff)
    {
        AbusiveClient client(m_port, AbusiveClient::STALL, 0);
        unsigned hangsIn = 0;
        int frames = 0;
        const auto goesOn = [&] {
            const unsigned sends = g_sends;
            frames = sends % 2 != 0 && sends == hangsIn ? frames + 1 : 0;
            hangsIn = sends;
            return frames >= 100;
        };
        framesUntil(goesOn, true);
        if (untilCutOff) {
            oneAtATime(12, AbusiveClient::GO);
        }
    }

    /// No client, no sender, nothing stored.
    ProcessFigures atRest()
    {
        oneAtATime(12, AbusiveClient::GO); // it comes behind all who haven't been accepted yet
        framesUntil([&] {
            return !m_probe->connected() && !m_probe->senderRunning() && m_probe->storeEmpty() &&
                   !m_probe->restartMarked();
        });
        return ProcessFigures::now();
    }

    const Frame m_small = {{300, "once data"}, {1, "whole"}, {2, "in three parts"}, {3, "now and then"}};
    const Frame m_large = {{300, "once data"}, {4, std::string(1 << 16, '4')}};
};

TEST_F(ClientAbuseTest, HostAndNextClientAreUnharmed)
{
    open({3, 2, 2, {{1, 'n'}, {2, 's'}, {3, 'i'}, {4, 'n'}, {300, 'o'}}, true}, testSeed(), 300);
    regularTransfer();
    stall(false);
    const ProcessFigures before = atRest();
    const std::size_t liveBlocks = AllocationScope::liveBlocks();
    g_waits = 0;
    int made = 0;
    std::size_t place = 0;
    for (const int connections = 1000 / LODESTONE_TEST_SHARE; made < connections && !HasFailure();) {
        for (int way = AbusiveClient::GO; way < AbusiveClient::STALL; ++way) {
            for (int k = 0; k < 12; ++k) {
                oneAtATime(place++ % PLACES, way);
            }
        }
        tenAtATime(place % PLACES);
        stall(made == 0);
        made += 4 * 12 + 10 + 1;
    }
    const ProcessFigures after = atRest();
    EXPECT_TRUE(place >= PLACES || LODESTONE_TEST_SHARE > 1) << "each place was left at";
    EXPECT_EQ(AllocationScope::liveBlocks(), liveBlocks);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.threads, before.threads);
    if (LODESTONE_TEST_SHARE == 1) {
        EXPECT_LE(after.residentBytes, before.residentBytes + (4U << 20U)); // a sanitizer keeps what is freed
    }
    EXPECT_EQ(g_waits, 0U);
    std::printf("%d connections\n", made);
    regularTransfer();
}
