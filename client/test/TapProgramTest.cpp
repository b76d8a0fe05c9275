#include "ReaderError.h"
#include "StreamModel.h"
#include "TapConnection.h"
#include "TapOptions.h"
#include "WatchProgram.h"
#include "support/DescriptionBytes.h"

#include <chrono>
#include <fcntl.h>
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

} // namespace

// The host is in the test's own thread: the kernel completes a connection before it is accepted, and keeps
// what is sent until it is read.
TEST(WatchProgram, EachEndIsToldApart)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    sockaddr* const generic = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, generic, length), 0);
    ASSERT_EQ(getsockname(listener, generic, &length), 0);
    const std::uint16_t port = ntohs(address.sin_port);
    const std::string endpoint = "localhost:" + std::to_string(port);
    try {
        TapConnection("localhost", port, DEADLINE);
        ADD_FAILURE() << "connected";
    } catch (const ReaderError& error) {
        EXPECT_EQ(error.what(), "cannot connect to " + endpoint + ": Connection refused");
    }
    ASSERT_EQ(listen(listener, 1), 0);

    StreamBytes sound;
    sound.cycle(7, 1).header(300, 1, 5, -1, 5).raw(pattern(5, 0));
    sound.cycle(8, 3).whole(100, pattern(40, 0)).whole(10998, diagnosticsRecord());
    sound.whole(10999, diagnosticsDescription());
    StreamBytes cutOff = sound;
    cutOff.cycle(9, 3).whole(100, pattern(40, 0));
    StreamBytes broken = sound;
    broken.number(1).number(9).number(1);
    const std::string over = "a newer client took over, or the host stopped streaming";
    enum End
    {
        HANGS_UP,
        STAYS,
        STOPS_US
    };
    const struct
    {
        std::vector<std::string> options;
        StreamBytes stream; // that the host has sent before the program runs
        End end;
        int code;
        std::string error;
        const char* shown; // somewhere in the picture, of which there is one at most
    } cases[] = {
        {{}, {}, HANGS_UP, 1, "stream ended after 0 bytes, before the first cycle: " + over, "connected"},
        {{}, sound, HANGS_UP, 1, "stream ended after 613 bytes, behind cycle 8: " + over, "10999  whole"},
        {{},
         cutOff,
         HANGS_UP,
         1,
         "stream ended after 685 bytes, in the middle of a cycle: the host process or its connection died",
         "\n"},
        {{}, broken, HANGS_UP, 1, "stream broken at byte 613, cycle 9: version 1, must be 0", "\n"},
        {{"--json"},
         sound,
         HANGS_UP,
         1,
         "stream ended after 613 bytes, behind cycle 8: " + over,
         R"("state":"over","error":"stream ended after 613 bytes)"},
        {{}, sound, STOPS_US, 0, "", ""},
        {{"--seconds", "0.3"}, sound, STAYS, 0, "", "host   queue length 3   buffers skipped 12"},
        {{"--once"}, sound, STAYS, 0, "", "LodestoneDiag"},
        {{"--once", "--timeout", "0.05"}, {}, STAYS, 1, "no NORMAL cycle from " + endpoint + " in time", ""},
    };
    const int stop = open("/dev/null", O_RDONLY); // there is always something to read
    for (const auto& item : cases) {
        std::vector<std::string> arguments = {"watch", endpoint, "--interval", "60"};
        arguments.insert(arguments.end(), item.options.begin(), item.options.end());
        TapConnection connection("localhost", port, DEADLINE);
        const int client = accept(listener, nullptr, nullptr);
        const Bytes& bytes = item.stream.bytes();
        ASSERT_EQ(send(client, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        EXPECT_TRUE(item.end != HANGS_UP || shutdown(client, SHUT_WR) == 0);
        std::ostringstream out;
        std::ostringstream errors;
        WatchProgram program(TapOptions::parse(arguments), connection, out, errors, -1);
        EXPECT_EQ(program.run(item.end == STOPS_US ? stop : -1), item.code);
        EXPECT_EQ(errors.str(), item.error.empty() ? "" : "lodestone-tap: " + item.error + "\n");
        EXPECT_NE(out.str().find(item.shown), std::string::npos) << out.str();
        EXPECT_TRUE(item.end != STOPS_US || out.str().empty()) << "nobody asks for a picture";
        EXPECT_EQ(out.str().find("localhost:"), out.str().rfind("localhost:")) << "more than one picture";
        close(client);
    }
    close(stop);
    close(listener);
}
