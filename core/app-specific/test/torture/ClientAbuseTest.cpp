#include "AbusiveClient.h"
#include "AllocationHook.h"
#include "ExactStreamFixture.h"
#include "ProcessFigures.h"

#include <atomic>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

thread_local bool t_inFrame = false;  // this thread is a host in the middle of a frame
std::atomic<unsigned> g_sends{0};     // odd while the sender is in the kernel with bytes for a client
std::atomic<unsigned> g_waits{0};     // calls that wait for time or for a signal, in a frame
std::atomic<unsigned> g_endsStuck{0}; // waits for the end of a sender that was with a client, in a frame

} // namespace

extern "C" {

ssize_t __real_send(int sock, const void* data, size_t byteSize, int flags);
int __real_usleep(useconds_t wait_us);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* moment);
int __real_pthread_join(pthread_t thread, void** result);

ssize_t __wrap_send(int sock, const void* data, size_t byteSize, int flags)
{
    ++g_sends;
    const ssize_t taken = __real_send(sock, data, byteSize, flags);
    ++g_sends;
    return taken;
}

int __wrap_usleep(useconds_t wait_us)
{
    g_waits += t_inFrame ? 1 : 0;
    return __real_usleep(wait_us);
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    g_waits += t_inFrame ? 1 : 0;
    return __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* moment)
{
    g_endsStuck += t_inFrame ? g_sends % 2 : 0;
    return __real_pthread_cond_timedwait(condition, mutex, moment);
}

int __wrap_pthread_join(pthread_t thread, void** result)
{
    g_endsStuck += t_inFrame ? g_sends % 2 : 0;
    return __real_pthread_join(thread, result);
}

} // extern "C"

namespace
{

// The ONCE cycle and the first NORMAL one have fewer bytes than this: clients leave at each of them.
const std::size_t PLACES = 640;

} // namespace

/// A host that goes on while its clients do what they like.
class ClientAbuseTest : public ExactStreamFixture
{
protected:
    void SetUp() override
    {
        open({3, 2, 2, {{1, 'n'}, {2, 's'}, {3, 'i'}, {4, 'n'}, {300, 'o'}}, true}, testSeed(), 300);
        m_content = {{300, "once data"}, {1, "whole"}, {2, "in three parts"}, {3, "now and then"}};
        m_content.emplace_back(4, std::string(1 << 16, '4'));
        m_array = arrayOf(m_content);
    }

    /// All channels but the large one, unless that is wanted to fill the kernel's buffers.
    void frame(bool large = false)
    {
        const auto size = static_cast<std::uint32_t>(m_array.size() - (large ? 0 : 1));
        t_inFrame = true;
        m_queue->addBuffers(m_array.data(), size, false);
        t_inFrame = false;
        ++m_frames;
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

    /// No client, no sender, nothing stored.
    void settle()
    {
        oneAtATime(12, AbusiveClient::GO); // it comes behind all who haven't been accepted yet
        framesUntil([&] {
            return !m_probe->connected() && !m_probe->senderRunning() && m_probe->storeEmpty() &&
                   !m_probe->restartMarked();
        });
    }

    void regularTransfer(int deliveries)
    {
        ASSERT_NO_FATAL_FAILURE(beginTransfer(Pace::FAST));
        deliverExactly(m_host->allChannels());
        for (int k = 0; k < deliveries; ++k) {
            ASSERT_NO_FATAL_FAILURE(deliverExactly(m_host->someChannels(100)));
        }
        endTransfer();
    }

    void oneAtATime(std::size_t leaveAt, int way)
    {
        AbusiveClient client(m_port, static_cast<AbusiveClient::Way>(way), leaveAt);
        framesUntil([&] { return client.step(); });
        EXPECT_EQ(client.bytesRead(), leaveAt);
    }

    void tenAtATime(std::size_t leaveAt)
    {
        std::deque<AbusiveClient> clients;
        for (int k = 0; k < 10; ++k) {
            clients.emplace_back(m_port, static_cast<AbusiveClient::Way>(k % AbusiveClient::NO_WAYS),
                                 leaveAt);
        }
        for (int k = 0; k < 100; ++k) { // those who haven't been served by then go all the same
            frame();
            for (AbusiveClient& client : clients) {
                client.step();
            }
        }
    }

    /// The sender hangs in the kernel and the host goes on; then the client goes, or a newcomer has it cut
    /// off.
    void stall(bool untilCutOff)
    {
        AbusiveClient client(m_port, AbusiveClient::STALL, 0);
        unsigned hangsIn = 0;
        int frames = 0;
        framesUntil(
            [&] {
                const unsigned sends = g_sends;
                frames = sends % 2 != 0 && sends == hangsIn ? frames + 1 : 0;
                hangsIn = sends;
                return frames >= 100;
            },
            true);
        m_framesBeside += static_cast<unsigned>(frames);
        if (untilCutOff) {
            AbusiveClient newcomer(m_port, AbusiveClient::GO, 12);
            framesUntil([&] { return newcomer.step(); });
            EXPECT_EQ(newcomer.bytesRead(), 12U);
        }
    }

    Frame m_content;
    std::vector<AlgoMeasBuffer> m_array;
    std::uint64_t m_frames = 0;
    std::uint64_t m_framesBeside = 0; // a hanging sender
};

TEST_F(ClientAbuseTest, HostAndNextClientAreUnharmed)
{
    regularTransfer(500);
    stall(false);
    settle();

    g_waits = g_endsStuck = 0;
    m_frames = m_framesBeside = 0;
    const ProcessFigures before = ProcessFigures::now();
    const std::size_t liveBlocks = AllocationScope::liveBlocks();
    const std::size_t liveBytes = AllocationScope::liveBytes();
    const int connections = shareOf(1000);
    int made = 0;
    std::size_t place = 0;
    for (int round = 0; made < connections && !HasFailure(); ++round) {
        for (int way = AbusiveClient::GO; way < AbusiveClient::STALL; ++way) {
            for (int k = 0; k < 12; ++k) {
                oneAtATime(place++ % PLACES, way);
                ++made;
            }
        }
        tenAtATime(place % PLACES);
        stall(false);
        stall(round == 0);
        made += 12;
    }
    settle();
    EXPECT_TRUE(place >= PLACES || LODESTONE_TEST_SHARE > 1) << "each place was left at";
    EXPECT_EQ(AllocationScope::liveBlocks(), liveBlocks);
    EXPECT_NEAR(static_cast<double>(AllocationScope::liveBytes()), static_cast<double>(liveBytes),
                static_cast<double>(liveBlocks * AllocationScope::ROUNDING));
    const ProcessFigures after = ProcessFigures::now();
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.threads, before.threads);
    if (LODESTONE_TEST_SHARE == 1) {
        EXPECT_LE(after.residentBytes, before.residentBytes + (4U << 20U)); // a sanitizer keeps what is freed
    }
    EXPECT_EQ(g_waits, 0U) << "waits of the host";
    EXPECT_EQ(g_endsStuck, 0U) << "waits for a sender that was with a client";
    EXPECT_GT(m_framesBeside, 0U);
    std::printf("%d connections; %llu frames, %llu of them beside a hanging sender\n", made,
                static_cast<unsigned long long>(m_frames), static_cast<unsigned long long>(m_framesBeside));
    regularTransfer(500);
}
