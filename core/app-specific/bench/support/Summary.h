#ifndef LODESTONE_BENCH_SUMMARY_H
#define LODESTONE_BENCH_SUMMARY_H

#include <string>
#include <vector>

/// The rows of the table that ends a benchmark run: what was measured, as a ratio or a count, and what it
/// should be.
class Summary
{
public:
    /// `limit` is an upper bound, or with `atLeast` a lower one.
    void add(const std::string& goal, const std::string& what, double measured, double limit,
             bool atLeast = false);

    /// Prints the rows, and appends them to the file if there is one.
    void print(const char* file) const;

private:
    std::vector<std::string> m_rows;
};

#endif
