#include "Summary.h"

#include <cstdio>

namespace
{

std::string number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

} // namespace

void Summary::add(const std::string& goal, const std::string& what, double measured, double limit)
{
    addRow("| " + goal + " | " + what, "", measured, limit, Limit::AT_MOST);
}

void Summary::add(const std::string& goal, const std::string& what, const Samples& ratios, double limit,
                  Limit kind)
{
    const std::string spread = number(ratios.quantile(0.25)) + " to " + number(ratios.quantile(0.75));
    addRow("| " + goal + " | " + what, spread, ratios.median(), limit, kind);
}

void Summary::addRow(const std::string& start, const std::string& spread, double measured, double limit,
                     Limit kind)
{
    std::string verdict = " |  |  |";
    if (kind != Limit::NONE) {
        const bool met = kind == Limit::AT_LEAST ? measured >= limit : measured <= limit;
        verdict = (kind == Limit::AT_LEAST ? " | at least " : " | at most ") + number(limit) +
                  (met ? " | yes |" : " | no |");
    }
    m_rows.push_back(start + " | " + number(measured) + " | " + spread + verdict);
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
