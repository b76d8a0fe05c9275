#include "Summary.h"

#include <cstdio>

void Summary::add(const std::string& goal, const std::string& what, double measured, double limit,
                  bool atLeast)
{
    char row[256];
    const bool met = atLeast ? measured >= limit : measured <= limit;
    std::snprintf(row, sizeof row, "| %s | %s | %.2f | %s %.2f | %s |", goal.c_str(), what.c_str(), measured,
                  atLeast ? "at least" : "at most", limit, met ? "yes" : "no");
    m_rows.push_back(row);
}

void Summary::print(const char* file) const
{
    std::FILE* const out = file != nullptr ? std::fopen(file, "a") : nullptr;
    for (const std::string& row : m_rows) {
        std::printf("%s\n", row.c_str());
        if (out != nullptr) {
            std::fprintf(out, "%s\n", row.c_str());
        }
    }
    if (out != nullptr) {
        std::fclose(out);
    }
}
