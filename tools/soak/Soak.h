#ifndef LODESTONE_TOOLS_SOAK_H
#define LODESTONE_TOOLS_SOAK_H

#include "AbusiveClient.h"
#include "RandomHost.h"
#include "SoakReport.h"
#include "StreamOracle.h"
#include "StreamPlan.h"
#include "StreamReader.h"

#include <chrono>
#include <functional>
#include <memory>
#include <random>

/// A host that taps random frames for a long time, with one random configuration and client after another.
/// Some clients read all, and the oracle accounts for every buffer; the others misbehave.
class Soak
{
public:
    /// Looked at between frames; the run ends early when it says so.
    typedef std::function<bool()> Interrupted;

    Soak(int seconds, unsigned seed, Interrupted interrupted);

    /// All of it, with lines of progress on standard output, and the table at the end. True if all is well.
    bool run();

private:
    typedef std::chrono::steady_clock Clock;

    bool over() const;
    double secondsSoFar() const;
    StreamPlan randomPlan();
    void liveWithOneConfiguration();
    void renewConstants();

    void checkedTransfer();
    void read();
    void frames();
    void close();
    void offer(const OfferedDelivery& delivery);
    void check();

    void abuse();
    bool framesUntil(const std::function<bool()>& done);
    void stall();
    void visit(int way, std::size_t byteSize, const char* fault);
    void uncheckedFrame();
    void apply(int constantBuffers);
    void tick();
    int dice(int sides) { return static_cast<int>(m_random() % static_cast<unsigned>(sides)); }

    const unsigned m_seed;
    const Interrupted m_interrupted;
    const int m_port;
    const Clock::time_point m_start;
    const Clock::time_point m_end;
    Clock::time_point m_nextTick;
    int m_ticks = 0;
    std::mt19937 m_random;
    SoakReport m_report;
    StreamPlan m_plan;
    std::unique_ptr<RandomHost> m_host;
    std::uint32_t m_constantNumber = 0;

    // The checked transfer.
    std::unique_ptr<StreamOracle> m_oracle;
    std::unique_ptr<StreamReader> m_reader;
    bool m_first = false; // the reader's next cycle is the first one after a takeover
};

#endif
