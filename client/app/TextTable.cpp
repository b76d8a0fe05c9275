#include "TextTable.h"

#include <algorithm>
#include <utility>

namespace LodestoneTap
{

TextTable::TextTable(std::string alignment)
    : m_alignment(std::move(alignment)), m_widths(m_alignment.size(), 0)
{}

void TextTable::add(std::vector<std::string> row)
{
    for (std::size_t i = 0; i < row.size(); ++i) {
        m_widths.at(i) = std::max(m_widths.at(i), row[i].size());
    }
    m_rows.push_back({std::move(row), ""});
}

void TextTable::addText(std::string cell, std::string text)
{
    add({std::move(cell)});
    m_rows.back().text = "  " + std::move(text);
}

std::vector<std::string> TextTable::lines() const
{
    std::vector<std::string> lines;
    for (const Row& row : m_rows) {
        std::string line;
        for (std::size_t i = 0; i < row.cells.size(); ++i) {
            const std::string fill(m_widths[i] - row.cells[i].size(), ' ');
            line += i == 0 ? "" : "  ";
            line += m_alignment[i] == 'r' ? fill + row.cells[i] : row.cells[i] + fill;
        }
        line += row.text;
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(line);
    }
    return lines;
}

} // namespace LodestoneTap
