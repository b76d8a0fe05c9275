#include "ReaderError.h"
#include "StreamModel.h"
#include "TapConnection.h"
#include "TapOptions.h"
#include "WatchProgram.h"
#include "support/DescriptionBytes.h"

#include <array>
#include <chrono>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

using namespace LodestoneTap;
using namespace LodestoneTapTest;

namespace
{

constexpr std::chrono::milliseconds DEADLINE(20000);

/// A host on the loopback, in the test's own thread: the kernel completes a connection before it is accepted,
/// and keeps what is sent until it is read.
class LoopbackHost
{
public:
    explicit LoopbackHost(bool listens)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        sockaddr* const generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(m_listener, generic, length), 0);
        EXPECT_TRUE(!listens || listen(m_listener, 1) == 0);
        EXPECT_EQ(getsockname(m_listener, generic, &length), 0);
        port = ntohs(address.sin_port);
    }
    ~LoopbackHost()
    {
        close(m_client);
        close(m_listener);
    }

    void send(const Bytes& bytes, bool hangsUp)
    {
        m_client = accept(m_listener, nullptr, nullptr);
        EXPECT_EQ(::send(m_client, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        EXPECT_TRUE(!hangsUp || shutdown(m_client, SHUT_WR) == 0);
    }

    std::uint16_t port = 0;

private:
    int m_listener = socket(AF_INET, SOCK_STREAM, 0);
    int m_client = -1;
};

} // namespace

TEST(TapConnection, FailureTellsTheReason)
{
    const LoopbackHost host(false);
    try {
        TapConnection("127.0.0.1", host.port, DEADLINE);
        ADD_FAILURE() << "connected";
    } catch (const ReaderError& error) {
        EXPECT_EQ(error.what(),
                  "cannot connect to 127.0.0.1:" + std::to_string(host.port) + ": Connection refused");
    }
}

TEST(WatchProgram, EachEndIsToldApart)
{
    StreamBytes sound;
    sound.cycle(7, 1).header(300, 1, 5, -1, 5).raw(pattern(5, 0));
    sound.cycle(8, 3).whole(100, pattern(40, 0)).whole(10998, diagnosticsRecord());
    sound.whole(10999, diagnosticsDescription());
    StreamBytes cutOff = sound;
    cutOff.cycle(9, 3).whole(100, pattern(40, 0));
    StreamBytes broken = sound;
    broken.number(1).number(9).number(1);
    std::array<int, 2> stop = {-1, -1};
    ASSERT_EQ(pipe(stop.data()), 0);
    ASSERT_EQ(write(stop[1], "x", 1), 1);

    const std::string over = "a newer client took over, or the host stopped streaming";
    enum End
    {
        HANGS_UP,
        STAYS,
        STAYS_AND_IS_STOPPED
    };
    const struct
    {
        std::vector<std::string> options;
        StreamBytes stream; // that the host has sent before the program runs
        End end;
        int code;
        std::string error; // the beginning of it
        const char* shown; // somewhere in the picture, of which there is one at most
    } cases[] = {
        {{}, {}, HANGS_UP, 1, "stream ended after 0 bytes, before the first cycle: " + over, "connected"},
        {{}, sound, HANGS_UP, 1, "stream ended after 613 bytes, behind cycle 8: " + over, "10999  whole"},
        {{}, cutOff, HANGS_UP, 1, "stream ended after 685 bytes, in the middle of a cycle: the host", "\n"},
        {{}, broken, HANGS_UP, 1, "stream broken at byte 613, cycle 9: version 1, must be 0", "\n"},
        {{"--json"}, sound, HANGS_UP, 1, "stream", R"("state":"over","error":"stream ended after 613 bytes)"},
        {{}, sound, STAYS_AND_IS_STOPPED, 0, "", ""},
        {{"--seconds", "0.3"}, sound, STAYS, 0, "", "host   queue length 3   buffers skipped 12"},
        {{"--once"}, sound, STAYS, 0, "", "LodestoneDiag"},
        {{"--once", "--timeout", "0.05"}, {}, STAYS, 1, "no NORMAL cycle from localhost:", "connected"},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.error + item.shown);
        LoopbackHost host(true);
        std::vector<std::string> arguments = {"watch", "localhost:" + std::to_string(host.port), "--interval",
                                              "60"};
        arguments.insert(arguments.end(), item.options.begin(), item.options.end());
        const TapOptions options = TapOptions::parse(arguments);
        TapConnection connection(options.host, options.port, DEADLINE);
        host.send(item.stream.bytes(), item.end == HANGS_UP);
        std::ostringstream out;
        std::ostringstream errors;
        const int stopDescriptor = item.end == STAYS_AND_IS_STOPPED ? stop[0] : -1;
        EXPECT_EQ(WatchProgram(options, connection, out, errors, -1).run(stopDescriptor), item.code);
        const std::string error = item.error.empty() ? "" : "lodestone-tap: " + item.error;
        EXPECT_EQ(errors.str().substr(0, error.size()), error);
        EXPECT_EQ(errors.str().empty(), error.empty()) << errors.str();
        EXPECT_NE(out.str().find(item.shown), std::string::npos) << out.str();
        EXPECT_EQ(out.str().find("localhost:"), out.str().rfind("localhost:")) << "more than one picture";
    }
    close(stop[0]);
    close(stop[1]);
}
