#include "Soak.h"

#include "Lodestone.h"

#include <cstdio>
#include <deque>
#include <thread>
#include <unistd.h>
#include <utility>

namespace
{

const auto CONFIGURATION_TIME = std::chrono::seconds(4);
const auto TRANSFER_TIME = std::chrono::milliseconds(1200);
const auto CLOSING_STEP = std::chrono::milliseconds(300);
const int FIRST_ONCE_CHANNEL =
    20001; // the store of constant buffers never forgets one, so they are always the same
const std::uint32_t MOST_UNSETTLED =
    4000; // deliveries that the reader may be behind: the oracle needs memory for each
const int TICKS_A_LINE = 10;
const unsigned HANG_S = 90; // longer than any wait of this program

// With the first thread of a process a sanitizer starts one of its own, which stays.
ProcessFigures figuresAtRest()
{
    std::thread([] {}).join();
    return ProcessFigures::now();
}

} // namespace

Soak::Soak(int seconds, unsigned seed, Interrupted interrupted)
    : m_seed(seed), m_interrupted(std::move(interrupted)), m_port(freePort()), m_start(Clock::now()),
      m_end(m_start + std::chrono::seconds(seconds)), m_nextTick(m_start), m_random(seed),
      m_report(figuresAtRest())
{}

bool Soak::run()
{
    while (!over()) {
        liveWithOneConfiguration();
    }
    std::printf("\n%s", m_report.table(secondsSoFar(), m_seed).c_str());
    return m_report.allIsWell();
}

bool Soak::over() const
{
    return m_interrupted() || Clock::now() >= m_end;
}

double Soak::secondsSoFar() const
{
    return std::chrono::duration<double>(Clock::now() - m_start).count();
}

StreamPlan Soak::randomPlan()
{
    StreamPlan plan = StreamPlan::random(m_random, false);
    plan.tagged = true; // the host can't see what is queued, so the stream must tell whose each part is
    int onceChannel = FIRST_ONCE_CHANNEL;
    for (const int channelID : plan.channelsOf(true)) {
        plan.channels.erase(channelID);
        plan.channels[onceChannel++] = 'o';
    }
    return plan;
}

void Soak::liveWithOneConfiguration()
{
    m_plan = randomPlan();
    m_host = std::make_unique<RandomHost>(m_plan, m_random() & 0xFFFFFFFFU);
    const std::string config = "0," + std::to_string(m_port) + "," + m_plan.text();
    if (Lodestone::Lodestone_Init(1, config) != 0) {
        m_report.fault(config + " was refused: " + Lodestone::GetLastErrorString());
    }
    ++m_report.configurations;
    const auto end = Clock::now() + CONFIGURATION_TIME;
    do {
        renewConstants();
        checkedTransfer();
        abuse();
    } while (!over() && Clock::now() < end);
    Lodestone::Lodestone_Init(0, "");
    m_report.compareRest();
}

void Soak::renewConstants()
{
    m_host->onceChannels();
    m_constantNumber = m_host->number();
    apply(1);
}

void Soak::checkedTransfer()
{
    m_oracle = std::make_unique<StreamOracle>(m_plan, m_constantNumber, false, m_report.exact);
    m_first = false;
    read();
    frames();
    close();
    m_reader.reset();
    m_oracle->finish();
    for (const std::string& fault : m_oracle->faults()) {
        m_report.fault(m_plan.text() + ": " + fault);
    }
    ++m_report.transfers;
}

void Soak::read()
{
    const auto pace = static_cast<StreamReader::Pace>(dice(StreamReader::NO_PACES));
    auto client = std::make_unique<StreamClient>(m_port, pace == StreamReader::FAST ? 0 : 4096);
    const auto hasEnded = [this] { return m_reader->ended(); };
    if (m_reader != nullptr && !waitFor(hasEnded)) {
        m_report.fault("a client whose place another one took is kept");
    }
    check();
    m_first = m_reader != nullptr;
    m_reader = std::make_unique<StreamReader>(std::move(client), pace, m_host->number());
}

void Soak::frames()
{
    const int restAfter = dice(2) == 0 ? 1 << 30 : 1 + dice(50); // frames, on the average
    // With a positive length a cycle may be lost there, and the host can't see which buffers were in it.
    const int takeOvers = m_plan.queueLength > 0 ? 1 << 30 : 500;
    const auto end = Clock::now() + TRANSFER_TIME;
    while (!over() && Clock::now() < end) {
        offer(m_host->someChannels());
        if (dice(takeOvers) == 0 && m_reader->nextCycle() != 0) {
            read();
            ++m_report.takeovers;
        }
        if (dice(restAfter) == 0) {
            usleep(200);
        }
    }
}

// The record of one last delivery, made after the queue has run empty, tells of all before.
void Soak::close()
{
    const auto deadline = testDeadline();
    while (Clock::now() < deadline) {
        offer(m_host->allChannels());
        const std::uint32_t number = m_host->number();
        for (const auto end = Clock::now() + CLOSING_STEP; Clock::now() < end; usleep(200)) {
            check();
            if (m_oracle->settledNumber() >= number && m_oracle->queueIsEmpty()) {
                return;
            }
        }
    }
    m_report.fault("the last delivery never came");
}

void Soak::offer(const OfferedDelivery& delivery)
{
    if (!delivery.buffers.empty()) {
        m_oracle->offer(delivery);
    }
    apply(0);
    check();
    const auto deadline = Clock::now() + CLOSING_STEP;
    while (delivery.number - m_oracle->settledNumber() > MOST_UNSETTLED && m_oracle->settledNumber() != 0 &&
           Clock::now() < deadline) {
        usleep(100);
        check();
    }
}

// What has been read so far.
void Soak::check()
{
    for (WireCycle cycle; m_reader != nullptr && m_reader->take(cycle); m_first = false) {
        m_oracle->check(cycle, m_first);
    }
}

void Soak::abuse()
{
    const bool mayStall = m_plan.queueLength > 0; // else the host waits for a client that it leads itself
    for (int k = dice(20); k > 0 && !over(); --k) {
        visit(dice(AbusiveClient::STALL), static_cast<std::size_t>(dice(1500)), "a client got no stream");
    }
    std::deque<AbusiveClient> crowd;
    for (int k = 0; k < 10; ++k) {
        const auto way =
            static_cast<AbusiveClient::Way>(k % (mayStall ? AbusiveClient::NO_WAYS : AbusiveClient::STALL));
        crowd.emplace_back(m_port, way, static_cast<std::size_t>(dice(1500)));
    }
    for (int k = 0; k < 100; ++k) {
        uncheckedFrame();
        for (AbusiveClient& client : crowd) {
            client.step();
        }
    }
    for (const AbusiveClient& client : crowd) {
        m_report.abusers += client.begun() ? 1 : 0;
    }
    crowd.clear(); // else those whom the kernel keeps waiting would take over from the next ones
    if (mayStall && dice(3) == 0) {
        stall();
    }
}

// Long enough for the kernel's buffers to fill; now and then until a newcomer has the client cut off.
void Soak::stall()
{
    const AbusiveClient client(m_port, AbusiveClient::STALL, 0);
    ++m_report.abusers;
    const auto end = Clock::now() + std::chrono::milliseconds(200);
    framesUntil([&] { return Clock::now() > end; });
    if (dice(3) == 0) {
        visit(AbusiveClient::GO, 32, "a newcomer behind a stalled client got no stream");
    }
}

// Reads so many bytes and goes.
void Soak::visit(int way, std::size_t byteSize, const char* fault)
{
    AbusiveClient client(m_port, way, byteSize);
    ++m_report.abusers;
    if (!framesUntil([&] { return client.step(); }) || client.bytesRead() != byteSize) {
        m_report.fault(fault);
    }
}

bool Soak::framesUntil(const std::function<bool()>& done)
{
    const auto deadline = testDeadline();
    while (!done()) {
        if (Clock::now() > deadline) {
            return false;
        }
        uncheckedFrame();
    }
    return true;
}

void Soak::uncheckedFrame()
{
    m_report.otherBuffers += m_host->someChannels().buffers.size();
    apply(0);
}

void Soak::apply(int constantBuffers)
{
    std::vector<AlgoMeasBuffer> array = arrayOf(m_host->frame());
    const auto size = static_cast<alif_uint32_t>(array.size());
    if (Lodestone::Lodestone_Apply(array.data(), size, constantBuffers) != 0) {
        m_report.fault(Lodestone::GetLastErrorString());
    }
    ++m_report.frames;
    if (Clock::now() >= m_nextTick) {
        tick();
    }
}

void Soak::tick()
{
    alarm(HANG_S); // until the next tick
    m_nextTick += std::chrono::seconds(1);
    m_report.sampleMemory();
    if (m_ticks++ % TICKS_A_LINE == 0) {
        std::printf("%s\n", m_report.progress(secondsSoFar()).c_str());
        std::fflush(stdout);
    }
}
