#ifndef LODESTONE_BENCH_BENCHTAP_H
#define LODESTONE_BENCH_BENCHTAP_H

#include "DrainingReader.h"
#include "Load.h"

#include <memory>
#include <string>

/// One frame through the public functions.
void applyFrame(std::vector<AlgoMeasBuffer>& buffers);

/// The tap, streaming normal data of a load to a reader. One at a time.
class BenchTap
{
public:
    /// `basic` is "<split>,<intermittent>,<length>", `channels` what Load::channels gives. `constants`, if
    /// any, are handed over as constant buffers. Ends the program if the configuration is refused.
    BenchTap(Load& load, const std::string& basic, const std::string& channels, Load* constants = nullptr);
    ~BenchTap();

    BenchTap(const BenchTap&) = delete;
    BenchTap& operator=(const BenchTap&) = delete;

    void frame() { applyFrame(m_load.buffers()); }
    DrainingReader& reader() { return *m_reader; }
    int port() const { return m_port; }

private:
    Load& m_load;
    int m_port;
    std::unique_ptr<DrainingReader> m_reader;
};

#endif
