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
    explicit LoopbackHost(bool listens = true)
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

StreamBytes shortStream()
{
    StreamBytes stream;
    stream.cycle(7, 1).header(300, 1, 5, -1, 5).raw(pattern(5, 0));
    stream.cycle(8, 3).whole(100, pattern(40, 0)).whole(10998, diagnosticsRecord());
    return stream.whole(10999, diagnosticsDescription());
}

/// Runs the program on a host that has already sent everything.
struct WatchRun
{
    WatchRun(const std::vector<std::string>& options, const StreamBytes& stream, bool hangsUp, int stop = -1)
    {
        LoopbackHost host;
        std::vector<std::string> arguments = {"watch", "localhost:" + std::to_string(host.port)};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const TapOptions parsed = TapOptions::parse(arguments);
        TapConnection connection(parsed.host, parsed.port, DEADLINE);
        host.send(stream.bytes(), hangsUp);
        std::ostringstream pictures;
        std::ostringstream reasons;
        code = WatchProgram(parsed, connection, pictures, reasons, -1).run(stop);
        out = pictures.str();
        errors = reasons.str();
    }

    int code;
    std::string out;
    std::string errors;
};

} // namespace

TEST(TapConnection, FailureTellsTheReason)
{
    const LoopbackHost host(false);
    const std::string endpoint = "127.0.0.1:" + std::to_string(host.port);
    try {
        TapConnection("127.0.0.1", host.port, DEADLINE);
        ADD_FAILURE() << "connected";
    } catch (const ReaderError& error) {
        EXPECT_EQ(error.what(), "cannot connect to " + endpoint + ": Connection refused");
    }
}

TEST(WatchProgram, EndOfTheStreamIsToldApart)
{
    StreamBytes cutOff = shortStream();
    cutOff.cycle(9, 3).whole(100, pattern(40, 0));
    StreamBytes broken = shortStream();
    broken.number(1).number(9).number(1);
    const struct
    {
        StreamBytes stream;
        const char* error;
    } cases[] = {
        {StreamBytes(),
         "stream ended after 0 bytes, before the first cycle: a newer client took over, or the host "
         "stopped streaming"},
        {shortStream(), "stream ended after 613 bytes, behind cycle 8: a newer client took over, or the host "
                        "stopped streaming"},
        {cutOff,
         "stream ended after 685 bytes, in the middle of a cycle: the host process or its connection died"},
        {broken, "stream broken at byte 613, cycle 9: version 1, must be 0"},
    };
    for (const auto& item : cases) {
        const WatchRun run({}, item.stream, true);
        EXPECT_EQ(run.code, 1);
        EXPECT_EQ(run.errors, std::string("lodestone-tap: ") + item.error + "\n");
        EXPECT_EQ(run.out.find("10999  whole") != std::string::npos, !item.stream.bytes().empty()) << run.out;
    }
    const WatchRun json({"--json"}, shortStream(), true);
    EXPECT_NE(json.out.find(R"("state":"over","error":"stream ended after 613 bytes)"), std::string::npos);
}

TEST(WatchProgram, StopsWhenAsked)
{
    std::array<int, 2> pipeEnds = {-1, -1};
    ASSERT_EQ(pipe(pipeEnds.data()), 0);
    ASSERT_EQ(write(pipeEnds[1], "x", 1), 1);
    const WatchRun stopped({}, shortStream(), false, pipeEnds[0]);
    EXPECT_TRUE(stopped.code == 0 && stopped.errors.empty()) << stopped.errors;
    close(pipeEnds[0]);
    close(pipeEnds[1]);

    const WatchRun timed({"--seconds", "0.3", "--interval", "60"}, shortStream(), false);
    EXPECT_TRUE(timed.code == 0 && timed.errors.empty()) << timed.errors;
    EXPECT_NE(timed.out.find("host   queue length 3   buffers skipped 12"), std::string::npos) << timed.out;
}

TEST(WatchProgram, OnceWaitsForAWholePicture)
{
    const WatchRun whole({"--once"}, shortStream(), false);
    EXPECT_EQ(whole.code, 0);
    EXPECT_NE(whole.out.find("LodestoneDiag"), std::string::npos) << whole.out;
    EXPECT_EQ(whole.out.find("localhost:"), whole.out.rfind("localhost:")) << "more than one picture";

    const WatchRun nothing({"--once", "--timeout", "0.05"}, StreamBytes(), false);
    EXPECT_EQ(nothing.code, 1);
    EXPECT_NE(nothing.errors.find("no NORMAL cycle from localhost:"), std::string::npos) << nothing.errors;
}

TEST(TapOptions, CommandLinesAreReadOrRefused)
{
    const TapOptions options = TapOptions::parse({"watch", "--json", "--interval", "0.25", "dev-7.lan:7000",
                                                  "--seconds", "90", "--memory", "2", "--timeout", "5"});
    EXPECT_EQ(options.endpoint(), "dev-7.lan:7000");
    EXPECT_TRUE(options.json && !options.once && options.memoryBytes == 2U << 20);
    EXPECT_TRUE(options.interval.count() == 250 && options.duration->count() == 90000 &&
                options.timeout.count() == 5000);
    EXPECT_EQ(TapOptions::parse({"watch", "--help"}).command, TapOptions::Command::HELP);
    EXPECT_EQ(TapOptions::parse({"--version"}).command, TapOptions::Command::VERSION);

    const std::string noEndpoint = " is no HOST:PORT with a name or IPv4 address and a port of 1 to 65535";
    const std::string noSeconds = " needs a number of seconds from 0.05 to 1000000, got ";
    const std::pair<std::vector<std::string>, std::string> refused[] = {
        {{}, "a command is missing"},
        {{"look", "h:1"}, "unknown command 'look'"},
        {{"watch"}, "watch needs HOST:PORT"},
        {{"watch", "h:1", "h:2"}, "'h:2' is one argument too many"},
        {{"watch", "h"}, "'h'" + noEndpoint},
        {{"watch", "h:65536"}, "'h:65536'" + noEndpoint},
        {{"watch", "[::1]:7000"}, "'[::1]:7000'" + noEndpoint},
        {{"watch", "h:1", "--fast"}, "unknown option '--fast'"},
        {{"watch", "h:1", "--interval"}, "--interval needs a value"},
        {{"watch", "h:1", "--interval", "0"}, "--interval" + noSeconds + "'0'"},
        {{"watch", "h:1", "--timeout", "1s"}, "--timeout" + noSeconds + "'1s'"},
        {{"watch", "h:1", "--memory", "-1"}, "--memory needs a number of MiB from 1 to 1048576, got '-1'"},
        {{"watch", "h:1", "--once", "--seconds", "1"}, "--once and --seconds exclude each other"},
    };
    for (const auto& [arguments, error] : refused) {
        try {
            TapOptions::parse(arguments);
            ADD_FAILURE() << "accepted: " << error;
        } catch (const UsageError& refusal) {
            EXPECT_EQ(refusal.what(), error);
        }
    }
}
