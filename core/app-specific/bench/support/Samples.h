#ifndef LODESTONE_BENCH_SAMPLES_H
#define LODESTONE_BENCH_SAMPLES_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

/// Durations in nanoseconds, or ratios of two of them, and what stands out.
class Samples
{
public:
    void add(double value) { m_values.push_back(value); }
    std::size_t size() const { return m_values.size(); }

    double median() const { return quantile(0.5); }
    double p99() const { return quantile(0.99); }
    double worst() const { return quantile(1.0); }

    /// The value below which that share of the samples lies; 0 without samples.
    double quantile(double share) const
    {
        if (m_values.empty()) {
            return 0;
        }
        std::vector<double> sorted = m_values;
        std::sort(sorted.begin(), sorted.end());
        return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))];
    }

private:
    std::vector<double> m_values;
};

inline double nowNs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

#endif
