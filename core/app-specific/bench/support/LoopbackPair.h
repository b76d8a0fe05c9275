#ifndef LODESTONE_BENCH_LOOPBACKPAIR_H
#define LODESTONE_BENCH_LOOPBACKPAIR_H

#include "DrainingReader.h"

#include <memory>

/// A connected socket to send on, and the reader at its other end: the road of the tap's bytes without the
/// tap.
class LoopbackPair
{
public:
    LoopbackPair();
    ~LoopbackPair();

    LoopbackPair(const LoopbackPair&) = delete;
    LoopbackPair& operator=(const LoopbackPair&) = delete;

    int sock() const { return m_sock; }
    DrainingReader& reader() { return *m_reader; }

private:
    int m_sock;
    std::unique_ptr<DrainingReader> m_reader;
};

#endif
