#ifndef LODESTONE_TEST_STREAMORACLE_H
#define LODESTONE_TEST_STREAMORACLE_H

#include "StreamClient.h"
#include "StreamPlan.h"

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

/// One buffer that a host offers on a channel that is sent with normal data.
struct OfferedBuffer
{
    /// NOT_DUE: an intermittent channel's turn hasn't come; neither sent nor counted as skipped.
    enum Fate
    {
        UNKNOWN,
        QUEUED,
        SKIPPED,
        NOT_DUE
    };

    int channelID = 0;
    std::uint32_t byteSize = 0;
    Fate fate = UNKNOWN; ///< As far as the host can tell; the oracle finds out the rest.
};

/// One delivery of a host in a transfer of normal data.
struct OfferedDelivery
{
    std::uint32_t number = 0; ///< Ascending.
    int firstChannel = 0;     ///< Of the whole array, by which the package is known.
    bool constant = false;    ///< Limit of one, no wait.
    std::vector<OfferedBuffer> buffers;

    // What the host looked up around the call, if it could.
    bool hostTold = false;
    std::uint32_t numSkipped = 0;  ///< In this transfer, this delivery included.
    std::uint64_t oldestFront = 0; ///< The queue's front cycle as the call saw it: this one ...
    std::uint64_t newestFront = 0; ///< ... or a later one, up to this.

    // The oracle's.
    std::uint64_t firstCycle = 0;
    std::map<int, std::uint64_t> flags; ///< By package: the newest delivery skipped something.
};

/// Knows of each buffer of one transfer whether it must come, when, and with which bytes. The model is a list
/// of deliveries, each with its first cycle, as the stream shows it. From it follows what every cycle must
/// carry, entry for entry; what its record must count and flag; and, where the host tells the fate of its
/// buffers, whether each could be queued or skipped, and in that cycle. Where it can't, the bytes tell.
///
/// After a takeover with a positive queue length one cycle, taken for the old client, may be missing. What it
/// held is counted as dropped. Only for tagged plans, and if the host tells.
///
/// All of it on the host's thread.
class StreamOracle
{
public:
    struct Counts
    {
        std::uint64_t offered = 0; ///< All but once data.
        std::uint64_t notDue = 0;
        std::uint64_t delivered = 0; ///< Must come.
        std::uint64_t arrived = 0;   ///< Last parts that came: all of them, but for what takeovers lose.
        std::uint64_t skipped = 0;
        std::uint64_t dropped = 0; ///< At takeovers.
        std::uint64_t cycles = 0;

        std::string text() const;
        bool closed() const
        {
            return offered == delivered + skipped + notDue + dropped && arrived <= delivered;
        }
    };

    /// `firstNumber`: once data are not older than that delivery. With `fromFirstOffer` the first delivery
    /// offered is the first of normal data; else the stream itself shows which one was. Adds to `counts`.
    StreamOracle(const StreamPlan& plan, std::uint32_t firstNumber, bool fromFirstOffer, Counts& counts)
        : m_plan(plan), m_firstNumber(firstNumber), m_started(fromFirstOffer), m_counts(counts)
    {}

    /// Before any cycle with a part of it is checked.
    void offer(const OfferedDelivery& delivery);
    /// The next cycle; `newConnection` if it is the first after a takeover.
    void check(const WireCycle& cycle, bool newConnection);
    /// The host has stopped, and all cycles have been checked.
    void finish();

    /// The last delivery that a cycle's record has accounted for.
    std::uint32_t settledNumber() const { return m_settledNumber; }
    /// As of the last cycle no other one was queued.
    bool queueIsEmpty() const { return m_ahead == m_nextCycle; }
    /// The most cycles that were queued when one was sent.
    std::uint64_t longestQueue() const { return m_longestQueue; }
    std::uint32_t numSkipped() const { return m_numSkipped; }
    /// The first ones; empty if all is well.
    const std::vector<std::string>& faults() const { return m_faults; }

private:
    static constexpr std::uint64_t NO_CYCLE = ~std::uint64_t{0};

    void expect(bool right, const char* otherwise, std::uint64_t number = 0);
    void checkOnce(const WireCycle& cycle, bool first);
    void checkNormal(const WireCycle& cycle);
    void beginTransfer(std::uint32_t number);
    void beginDelivery();
    void decide(OfferedDelivery& delivery);
    bool isDue(int channelID);
    bool brings(const OfferedDelivery& delivery, std::uint64_t firstCycle);
    bool isPart(const WireEntry& entry, const OfferedBuffer& buffer, std::uint32_t number, int part) const;
    bool goesOn(const OfferedDelivery& delivery) const;
    std::uint64_t behindCycle(const OfferedDelivery& delivery, const OfferedBuffer& buffer) const;
    void count(const OfferedDelivery& delivery);
    void checkRoom(const OfferedDelivery& delivery);
    void checkFirstCycle(const OfferedDelivery& delivery);
    void checkRecord(const WireCycle& cycle, const OfferedDelivery& creator);

    const StreamPlan m_plan;
    const std::uint32_t m_firstNumber;
    bool m_started;

    Counts& m_counts;

    /// Of the cycle, from its end: deliveries come in their order so, the buffers of one from the last to the
    /// first.
    std::vector<const WireEntry*> m_entries;
    std::size_t m_nextEntry = 0;
    std::deque<OfferedDelivery> m_offers;              // nothing of them has come so far
    std::list<OfferedDelivery> m_current;              // have begun, with parts in this cycle
    std::map<int, int> m_sinceDue;                     // frames, by intermittent channel
    std::map<int, std::set<std::uint64_t>> m_heldUpTo; // by channel: cycles behind its newest buffers
    std::map<int, std::uint64_t> m_flags;              // as of the last delivery that has begun
    std::uint32_t m_numSkipped = 0;                    // the same
    std::uint32_t m_settledNumber = 0;
    std::uint64_t m_cycle = 0;
    std::uint64_t m_nextCycle = NO_CYCLE;
    std::uint64_t m_openCycle = 0; // the first that another delivery may use
    std::uint64_t m_ahead = 0;     // the next fresh cycle, as of the last record
    std::uint64_t m_lostCycle = NO_CYCLE;
    std::uint64_t m_longestQueue = 0;
    std::vector<std::string> m_faults;
};

#endif
