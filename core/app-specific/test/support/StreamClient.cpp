#include "StreamClient.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{

const auto PATIENCE = std::chrono::seconds(30);

sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

std::uint64_t littleEndian(const std::string& bytes, std::size_t offset, std::size_t size)
{
    std::uint64_t value = 0;
    for (std::size_t k = 0; k < size && offset + k < bytes.size(); ++k) {
        value |= static_cast<std::uint64_t>(static_cast<std::uint8_t>(bytes[offset + k])) << (8 * k);
    }
    return value;
}

std::int32_t number(const std::string& bytes, std::size_t offset)
{
    return static_cast<std::int32_t>(littleEndian(bytes, offset, 4));
}

} // namespace

std::chrono::steady_clock::time_point testDeadline()
{
    return std::chrono::steady_clock::now() + PATIENCE;
}

bool waitFor(const std::function<bool()>& condition)
{
    const auto deadline = testDeadline();
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

unsigned testSeed()
{
    const char* const given = std::getenv("LODESTONE_TEST_SEED");
    const unsigned seed =
        given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::printf("LODESTONE_TEST_SEED=%u\n", seed);
    return seed;
}

int freePort()
{
    const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int enabled = 1;
    ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &enabled, sizeof enabled);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    ::bind(sock, reinterpret_cast<const sockaddr*>(&address), length);
    ::getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length);
    // Left open, without listening: so the kernel gives the port to nobody else, and a listener can still
    // bind it.
    return ntohs(address.sin_port);
}

const WireEntry* WireCycle::find(std::int32_t channelID) const
{
    for (const WireEntry& entry : entries) {
        if (entry.channelID == channelID) {
            return &entry;
        }
    }
    return nullptr;
}

std::vector<std::int32_t> WireCycle::channels() const
{
    std::vector<std::int32_t> result;
    for (const WireEntry& entry : entries) {
        if (entry.channelID != 10998 && entry.channelID != 10999) {
            result.push_back(entry.channelID);
        }
    }
    return result;
}

std::uint64_t WireCycle::diag(std::size_t offset, std::size_t size) const
{
    const WireEntry* const entry = find(10998);
    return entry == nullptr ? 0 : littleEndian(entry->payload, offset, size);
}

std::string shown(const WireCycle& cycle)
{
    if (!cycle.complete) {
        return cycle.bytes.empty() ? "end" : "broken";
    }
    std::string text = std::to_string(cycle.counter) + "/" + std::to_string(cycle.diag(4)) + ":";
    for (const WireEntry& entry : cycle.entries) {
        if (entry.channelID == 10998 || entry.channelID == 10999) {
            continue;
        }
        text += " " + std::to_string(entry.channelID);
        if (entry.numberOfParts != 1 || entry.partNumber != 0) {
            text += "." + std::to_string(entry.partNumber);
        }
        text += "=" + entry.payload;
    }
    return text;
}

StreamClient::StreamClient(int port, int receiveBuffer, const std::function<bool()>& giveUp)
{
    waitFor([&] {
        if (open(port, receiveBuffer, 0)) {
            return true;
        }
        close();
        return giveUp && giveUp();
    });
}

bool StreamClient::open(int port, int receiveBuffer, int flags)
{
    const sockaddr_in address = loopback(port);
    m_sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    if (receiveBuffer > 0) {
        ::setsockopt(m_sock, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    return ::connect(m_sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

StreamClient::~StreamClient()
{
    close();
}

WireCycle StreamClient::readCycle()
{
    WireCycle cycle;
    std::string& bytes = cycle.bytes;
    if (!append(bytes, 12)) {
        return cycle;
    }
    cycle.counter = static_cast<std::uint32_t>(number(bytes, 4));
    std::int32_t left = number(bytes, 8);
    std::size_t header = bytes.size();
    bool whole = left > 0 && append(bytes, 20);
    for (; whole && left > 0; --left) {
        const auto partByteSize = static_cast<std::size_t>(number(bytes, header + 16));
        whole = append(bytes, partByteSize + (left > 1 ? 20 : 0)); // with the next header
        cycle.entries.push_back({number(bytes, header), number(bytes, header + 4), number(bytes, header + 8),
                                 number(bytes, header + 12), bytes.substr(header + 20, partByteSize)});
        header += 20 + partByteSize;
    }
    cycle.complete = whole && number(bytes, 0) == 0;
    return cycle;
}

bool StreamClient::append(std::string& bytes, std::size_t byteSize)
{
    const auto deadline = testDeadline();
    const std::size_t wanted = bytes.size() + byteSize;
    std::size_t filled = bytes.size();
    bytes.resize(wanted);
    while (m_sock >= 0 && filled < wanted && std::chrono::steady_clock::now() < deadline) {
        const ssize_t count = ::recv(m_sock, &bytes[filled], wanted - filled, MSG_DONTWAIT);
        if (count < 0 && errno == EAGAIN) {
            somethingWaits(100);
            continue;
        }
        if (count <= 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    bytes.resize(filled);
    return filled == wanted;
}

std::string StreamClient::readBytes(std::size_t byteSize)
{
    std::string bytes;
    append(bytes, byteSize);
    return bytes;
}

bool StreamClient::drain(int patience_ms)
{
    char bytes[1 << 16];
    return !somethingWaits(patience_ms) || ::recv(m_sock, bytes, sizeof bytes, 0) > 0;
}

bool StreamClient::waitForEnd()
{
    return waitFor([this] { return !drain(100); });
}

bool StreamClient::somethingWaits(int patience_ms) const
{
    pollfd entry = {m_sock, POLLIN, 0};
    return ::poll(&entry, 1, patience_ms) > 0;
}

void StreamClient::close()
{
    if (m_sock >= 0) {
        ::close(m_sock);
        m_sock = -1;
    }
}

void StreamClient::vanish()
{
    const linger now = {1, 0};
    ::setsockopt(m_sock, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close();
}
