#ifndef LODESTONE_CLIENT_TEXTTABLE_H
#define LODESTONE_CLIENT_TEXTTABLE_H

#include <cstddef>
#include <string>
#include <vector>

namespace LodestoneTap
{

/// Columns of plain text, each as wide as its widest cell and two blanks from its neighbour. ASCII only.
class TextTable
{
public:
    /// One letter a column: 'l' for text at the left, 'r' for numbers at the right.
    explicit TextTable(std::string alignment);

    /// A row may be shorter than the table.
    void add(std::vector<std::string> row);

    /// A row whose first cell is laid out, with any text behind it.
    void addText(std::string cell, std::string text);

    /// The rows in order, without blanks at their ends.
    std::vector<std::string> lines() const;

private:
    struct Row
    {
        std::vector<std::string> cells;
        std::string text;
    };

    std::string m_alignment;
    std::vector<std::size_t> m_widths;
    std::vector<Row> m_rows;
};

} // namespace LodestoneTap

#endif
