#ifndef LODESTONE_TEST_STREAMORACLE_H
#define LODESTONE_TEST_STREAMORACLE_H

#include "StreamClient.h"
#include "StreamPlan.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <mutex>
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
    bool begun = false;  ///< The oracle's: some part of it came.
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
    std::uint64_t frontBefore = 0; ///< The queue's front cycle before the call ...
    std::uint64_t frontAfter = 0;  ///< ... and after it.
    std::uint64_t slack = 1; ///< By how many cycles the sender's counts may be off, 0 if it stands still.
    std::uint32_t numSkipped = 0; ///< Skipped in this transfer, this delivery included.
};

/// Knows of each buffer of one transfer whether it must come, when, and with which bytes. The model is a list
/// of deliveries, each with its first cycle, as the stream shows it. From it follows what every cycle must
/// carry, entry for entry; what its record must count and flag; and, where the host tells the fate of its
/// buffers, whether each could be queued or skipped, and in that cycle.
///
/// The account. A cycle's record is a snapshot from the delivery that was the first to use the cycle, the one
/// whose entries stand last. All deliveries up to that one have begun in this cycle or before, so what hasn't
/// come of them by now was skipped, and the record must say exactly so many.
///
/// After a takeover with a positive queue length one cycle, taken for the old client, may be missing. What it
/// held is counted as dropped.
class StreamOracle
{
public:
    struct Counts
    {
        std::uint64_t offered = 0; ///< All but once data.
        std::uint64_t notDue = 0;
        std::uint64_t delivered = 0;
        std::uint64_t skipped = 0;
        std::uint64_t dropped = 0; ///< At takeovers.
        std::uint64_t cycles = 0;

        Counts& operator+=(const Counts& other);
        bool closed() const { return offered == delivered + skipped + notDue + dropped; }
    };

    /// `firstNumber`: once data are not older than that delivery. With `fromFirstOffer` the first delivery
    /// offered is the first of normal data; else the stream itself shows which one was.
    StreamOracle(const StreamPlan& plan, std::uint32_t firstNumber, bool fromFirstOffer)
        : m_plan(plan), m_firstNumber(firstNumber), m_started(fromFirstOffer)
    {}

    /// Before the reader can see any of it, unless all cycles are checked afterwards. Any thread.
    void offer(const OfferedDelivery& delivery);

    // The reader's side, one thread at a time.

    /// The next cycle; `newConnection` if it is the first after a takeover.
    void check(const WireCycle& cycle, bool newConnection);
    /// The host has stopped, and all cycles have been checked.
    void finish();
    /// The last delivery that a cycle's record has accounted for. Any thread.
    std::uint32_t settledNumber() const { return m_settledNumber; }
    /// No cycle that was lost at a takeover is still to be accounted for: another client may take over. Any
    /// thread.
    bool lossIsSettled() const { return !m_mayBeShort; }

    const Counts& counts() const { return m_counts; }
    std::uint32_t numSkipped() const { return m_numSkipped; }
    /// The first ones; empty if all is well.
    const std::vector<std::string>& faults() const { return m_faults; }
    void fault(const std::string& text);

private:
    static constexpr std::uint64_t NO_CYCLE = ~std::uint64_t{0};
    static constexpr std::uint32_t NO_NUMBER = ~std::uint32_t{0};

    struct Delivery : OfferedDelivery
    {
        explicit Delivery(const OfferedDelivery& offered) : OfferedDelivery(offered) {}
        std::uint64_t firstCycle = NO_CYCLE;
    };

    void takeOffers(const WireCycle& cycle);
    bool isDue(int channelID);
    void checkCounter(bool newConnection);
    void checkOnce(const WireCycle& cycle);
    void beginDeliveries(const WireCycle& cycle);
    void begin(const WireEntry& entry);
    std::uint32_t checkEntries(const WireCycle& cycle);
    bool isPart(const WireEntry& entry, const OfferedBuffer& buffer, std::uint32_t number, int part) const;
    std::uint64_t lastCycleOf(const Delivery& delivery, const OfferedBuffer& buffer) const;
    void forgetFinished();
    void settle(std::uint32_t number);
    void settleOne(Delivery& delivery);
    void drop(Delivery& delivery, OfferedBuffer& buffer);
    void checkFirstCycle(const Delivery& delivery);
    void checkRoom(const Delivery& delivery, const OfferedBuffer& buffer);
    void checkRecord(const WireCycle& cycle, bool mayBeShort);
    void checkFlags(const WireCycle& cycle);

    const StreamPlan m_plan;
    const std::uint32_t m_firstNumber;

    std::mutex m_mutex; // guards m_offers
    std::deque<OfferedDelivery> m_offers;

    bool m_started;
    std::list<Delivery> m_deliveries; // with parts to come, or not settled yet; in the order of their numbers
    std::map<int, int> m_sinceDue;    // frames, by intermittent channel
    std::map<int, std::set<std::uint64_t>> m_heldBy; // by channel: last cycles of its newest buffers
    std::map<int, std::uint64_t> m_flags;            // by package
    std::uint64_t m_cycle = 0;
    std::uint64_t m_nextCycle = NO_CYCLE;
    std::uint64_t m_openCycle = 0; // the first that another delivery may use
    std::uint64_t m_ahead = 0;     // the next fresh cycle, as of the last record
    std::uint64_t m_lostCycle = NO_CYCLE;
    std::atomic<bool> m_mayBeShort{false}; // a record may show that some were dropped, not skipped
    std::uint32_t m_lastBegun = 0;
    int m_creatorChannel = 0; // package of the delivery that was the first to use this cycle
    std::atomic<std::uint32_t> m_settledNumber{0};
    std::uint32_t m_numSkipped = 0;
    Counts m_counts;
    std::vector<std::string> m_faults;
};

#endif
