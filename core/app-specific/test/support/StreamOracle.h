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
    Fate fate = UNKNOWN;    ///< As far as the host can tell; the oracle finds out the rest.
    bool delivered = false; ///< The oracle's: some part of it came.
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
    std::uint32_t numSkipped = 0;  ///< Skipped in this transfer, this delivery included.
};

/// Knows of each buffer of one transfer whether it must come, when, and with which bytes, and holds every
/// cycle against that: the order and the slices of its entries, the count of skipped buffers and the
/// packages' flags in its record, and the backlog rule for each buffer that was queued or skipped.
///
/// The account. A cycle's record is a snapshot from the delivery that was the first to use the cycle, the one
/// whose entries stand last. All deliveries up to that one have begun in this cycle or before, so what hasn't
/// come of them by now was skipped, and the record must say exactly so many. If the host tells each buffer's
/// fate (`hostTold`), that must agree too.
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
    };

    /// `firstNumber`: once data are not older than that delivery. With `fromFirstOffer` the first delivery
    /// offered is the first of normal data; else the stream itself shows which one was.
    StreamOracle(const StreamPlan& plan, std::uint32_t firstNumber, bool fromFirstOffer);

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
    struct Delivery : OfferedDelivery
    {
        std::uint64_t firstCycle = NO_CYCLE;
        std::uint32_t skipped = 0;
    };
    struct Place
    {
        Delivery* delivery;
        std::size_t index;
        OfferedBuffer& buffer() const { return delivery->buffers[index]; }
    };
    /// A buffer with parts still to come.
    struct OpenBuffer
    {
        int channelID;
        std::uint32_t byteSize;
        std::uint32_t number;
        std::uint64_t firstCycle;
    };
    struct Channel
    {
        std::deque<Place> awaited;
        std::deque<std::uint64_t> heldBy; ///< Cycles with whole buffers.
        std::uint64_t behindParts = 0;    ///< Behind the newest buffer's last part.
        int sinceDue = 0;
    };
    typedef std::list<OpenBuffer>::iterator OpenIterator;

    static constexpr std::uint64_t NO_CYCLE = ~std::uint64_t{0};
    static constexpr std::uint32_t NO_NUMBER = ~std::uint32_t{0};

    void takeOffers(const WireCycle& cycle);
    void await(const OfferedDelivery& offered);
    bool isDue(const OfferedBuffer& buffer);
    void checkCounter(bool newConnection);
    void loseCycle();
    void checkOnce(const WireCycle& cycle);
    void checkEntries(const WireCycle& cycle);
    void goOn(const WireEntry& entry, OpenIterator open);
    void claim(const WireEntry& entry);
    void passOver(std::deque<Place>& awaited, const WireEntry& entry);
    void checkPlace(const Place& place, std::uint64_t firstCycle);
    void begin(const Place& place);
    bool isThis(const Place& place, const WireEntry& entry) const;
    void checkSlice(const WireEntry& entry, int part, std::uint32_t byteSize, std::uint32_t number);
    void didNotCome(const Place& place);
    void drop(const Place& place);
    bool mayHaveBeenFull(const Place& place);
    bool mayHaveHadRoom(const Place& place);
    void settle(std::uint32_t number);
    void settleOne(Delivery& delivery);
    void checkRecord(const WireCycle& cycle);
    void checkFlags(const WireCycle& cycle);

    const StreamPlan m_plan;
    const std::uint32_t m_firstNumber;

    std::mutex m_mutex; // guards m_offers
    std::deque<OfferedDelivery> m_offers;

    bool m_started;
    std::map<int, Channel> m_channels;
    std::deque<Delivery> m_deliveries; // not settled yet, in the order of their numbers
    std::list<OpenBuffer> m_open;      // oldest delivery first, within one the last in the array
    std::map<int, int> m_flags;        // by package
    std::uint64_t m_cycle = 0;
    std::uint64_t m_nextCycle = NO_CYCLE;
    std::uint64_t m_ahead = 0; // the next fresh cycle, as of the last record
    std::uint64_t m_lostCycle = NO_CYCLE;
    std::uint32_t m_lostNumber = NO_NUMBER; // the one delivery whose whole buffers were in it
    bool m_lostIsOver = false;              // what was settled has gone beyond it
    std::atomic<bool> m_mayBeShort{false};  // a record may show that some were dropped, not skipped
    std::uint32_t m_creator = 0;            // delivery that was the first to use this cycle
    int m_creatorChannel = 0;
    std::uint32_t m_claimedNumber = 0; // the last entry's in this cycle
    std::size_t m_claimedIndex = 0;
    std::atomic<std::uint32_t> m_settledNumber{0};
    std::uint32_t m_numSkipped = 0;
    Counts m_counts;
    std::vector<std::string> m_faults;
};

#endif
