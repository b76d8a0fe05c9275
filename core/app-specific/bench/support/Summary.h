#ifndef LODESTONE_BENCH_SUMMARY_H
#define LODESTONE_BENCH_SUMMARY_H

#include "Samples.h"

#include <string>
#include <vector>

/// The rows of the table that ends a benchmark run: what was measured, as a ratio or a count, and what it
/// should be.
class Summary
{
public:
    enum class Limit
    {
        AT_MOST,
        AT_LEAST,
        NONE ///< Shown to compare with; nothing is promised.
    };

    /// One figure.
    void add(const std::string& goal, const std::string& what, double measured, double limit);
    /// Ratios, one for each round of a run: their median counts, their quartiles are shown.
    void add(const std::string& goal, const std::string& what, const Samples& ratios, double limit,
             Limit kind = Limit::AT_MOST);

    /// Prints the rows, and appends them to the file if there is one.
    void print(const char* file) const;

private:
    void addRow(const std::string& start, const std::string& spread, double measured, double limit,
                Limit kind);

    std::vector<std::string> m_rows;
};

#endif
