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
    LoopbackHost() : m_listener(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        sockaddr* const generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(m_listener, generic, length), 0);
        EXPECT_EQ(listen(m_listener, 1), 0);
        EXPECT_EQ(getsockname(m_listener, generic, &length), 0);
        m_port = ntohs(address.sin_port);
    }
    ~LoopbackHost()
    {
        hangUp();
        stopListening();
    }

    std::uint16_t port() const { return m_port; }
    void accept() { m_client = ::accept(m_listener, nullptr, nullptr); }
    void send(const StreamBytes& stream)
    {
        const Bytes& bytes = stream.bytes();
        EXPECT_EQ(::send(m_client, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    void hangUp() { closeOnce(m_client); }
    void stopListening() { closeOnce(m_listener); }

private:
    static void closeOnce(int& descriptor)
    {
        if (descriptor != -1) {
            close(descriptor);
            descriptor = -1;
        }
    }

    int m_listener;
    int m_client = -1;
    std::uint16_t m_port = 0;
};

StreamBytes shortStream()
{
    StreamBytes stream;
    stream.cycle(7, 1).header(300, 1, 5, -1, 5).raw(pattern(5, 0));
    stream.cycle(8, 3).whole(100, pattern(40, 0)).whole(10998, diagnosticsRecord());
    return stream.whole(10999, diagnosticsDescriptionPayload());
}

/// Runs the program on a host that has already sent everything.
struct WatchRun
{
    WatchRun(const std::vector<std::string>& options, const StreamBytes& stream, bool hangsUp, int stop = -1)
    {
        LoopbackHost host;
        std::vector<std::string> arguments = {"watch", "localhost:" + std::to_string(host.port())};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const TapOptions parsed = TapOptions::parse(arguments);
        TapConnection connection(parsed.host, parsed.port, DEADLINE);
        host.accept();
        host.send(stream);
        if (hangsUp) {
            host.hangUp();
        }
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

TEST(TapConnection, ModelFollowsALiveStreamToItsEnd)
{
    LoopbackHost host;
    TapConnection connection("localhost", host.port(), DEADLINE);
    host.accept();
    StreamModel model(std::chrono::steady_clock::now());
    std::array<std::uint8_t, 100> bytes;
    const std::uint64_t size = shortStream().bytes().size();
    for (int round = 1; round <= 3; ++round) {
        host.send(shortStream());
        while (model.picture(std::chrono::steady_clock::now()).bytes < static_cast<unsigned>(round) * size) {
            std::size_t received = 0;
            ASSERT_EQ(connection.read(bytes.data(), bytes.size(), received, DEADLINE),
                      TapConnection::Outcome::DATA);
            model.feed(bytes.data(), received, std::chrono::steady_clock::now());
        }
        const StreamPicture picture = model.picture(std::chrono::steady_clock::now());
        EXPECT_EQ(picture.normalCycles, static_cast<unsigned>(round));
        EXPECT_EQ(picture.channels.size(), 4U);
        EXPECT_TRUE(picture.host);
    }
    std::size_t received = 1;
    EXPECT_EQ(connection.read(bytes.data(), bytes.size(), received, std::chrono::milliseconds(0)),
              TapConnection::Outcome::TIMEOUT);
    EXPECT_EQ(received, 0U);
    host.hangUp();
    EXPECT_EQ(connection.read(bytes.data(), bytes.size(), received, DEADLINE), TapConnection::Outcome::ENDED);
}

TEST(TapConnection, FailureTellsTheReason)
{
    LoopbackHost host;
    host.stopListening();
    const std::string endpoint = "127.0.0.1:" + std::to_string(host.port());
    try {
        TapConnection("127.0.0.1", host.port(), DEADLINE);
        ADD_FAILURE() << "connected";
    } catch (const ReaderError& error) {
        EXPECT_EQ(error.what(), "cannot connect to " + endpoint + ": Connection refused");
    }
    EXPECT_THROW(TapConnection("999.1.1.1.invalid.", 7000, DEADLINE), ReaderError);
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
    EXPECT_EQ(stopped.code, 0);
    EXPECT_EQ(stopped.errors, "");
    close(pipeEnds[0]);
    close(pipeEnds[1]);

    const WatchRun timed({"--seconds", "0.3", "--interval", "60"}, shortStream(), false);
    EXPECT_EQ(timed.code, 0);
    EXPECT_EQ(timed.errors, "");
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
    EXPECT_TRUE(options.json && !options.once);
    EXPECT_EQ(options.interval.count(), 250);
    EXPECT_EQ(options.duration->count(), 90000);
    EXPECT_EQ(options.timeout.count(), 5000);
    EXPECT_EQ(options.memoryBytes, 2U << 20);
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
        {{"watch", ":7000"}, "':7000'" + noEndpoint},
        {{"watch", "h:0"}, "'h:0'" + noEndpoint},
        {{"watch", "h:65536"}, "'h:65536'" + noEndpoint},
        {{"watch", "h:70x"}, "'h:70x'" + noEndpoint},
        {{"watch", "[::1]:7000"}, "'[::1]:7000'" + noEndpoint},
        {{"watch", "h:1", "--fast"}, "unknown option '--fast'"},
        {{"watch", "h:1", "--interval"}, "--interval needs a value"},
        {{"watch", "h:1", "--interval", "0"}, "--interval" + noSeconds + "'0'"},
        {{"watch", "h:1", "--seconds", "nan"}, "--seconds" + noSeconds + "'nan'"},
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
