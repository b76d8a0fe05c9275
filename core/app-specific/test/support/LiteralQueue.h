#ifndef LODESTONE_TEST_LITERALQUEUE_H
#define LODESTONE_TEST_LITERALQUEUE_H

#include "ConfigStringParser.h"

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// The oracle for the queue: cycles and jobs as plain lists, every question answered by walking all of them.
/// Slow and obvious, without threads or memory tricks.
class LiteralQueue
{
public:
    struct Job
    {
        int channelID;
        std::string bytes; // of the whole buffer
        int noParts;
        int partNo;
    };
    struct Cycle
    {
        std::uint32_t counter = 0;
        std::uint32_t numSkipped = 0;
        std::list<Job> jobs;
    };
    typedef std::vector<std::pair<int, std::string>> Frame;

    explicit LiteralQueue(const Lodestone::ConfigStringParser::Config& config) : m_config(config) {}

    /// One delivery of normal data. Returns whether a buffer was skipped.
    bool deliver(const Frame& frame, int maxAppearance);
    /// The front cycle goes to the sender; with a negative length it also stays.
    Cycle take();
    void done();
    void reset();

    bool spaceLeft(int channelID, int maxAppearance, bool splitted) const;
    bool frontTaken() const { return m_frontTaken; }
    const std::list<Cycle>& cycles() const { return m_cycles; }
    std::uint32_t numSkipped() const { return m_numSkipped; }

private:
    bool isDue(int channelID);
    void merge(std::list<Cycle>& newList);

    Lodestone::ConfigStringParser::Config m_config;
    std::list<Cycle> m_cycles;
    std::map<int, int> m_intermittentMap;
    std::uint32_t m_cycleCounter = 0;
    std::uint32_t m_numSkipped = 0;
    bool m_frontTaken = false; // the front cycle is in transmission
};

#endif
