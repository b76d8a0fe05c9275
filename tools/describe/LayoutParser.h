#ifndef LODESTONE_TOOLS_LAYOUTPARSER_H
#define LODESTONE_TOOLS_LAYOUTPARSER_H

#include "RecordLayout.h"

#include <cstddef>
#include <istream>
#include <string>
#include <vector>

namespace Lodestone
{

/// Reads a layout text. One thing stands on a line, words are separated by blanks, indentation is free, and
/// '#' begins a comment:
///
///     record NAME size BYTES [extent N]
///         int32 name at OFFSET
///         float64 table[3][4] at OFFSET
///         struct name[5] at OFFSET size BYTES
///             ...
///         end
///     end
///
/// Scalars are int8 to int64, uint8 to uint64, float32 and float64. Offsets count from the start of the
/// enclosing structure, as offsetof gives them; a structure's size is its sizeof, and that of one element in
/// an array. Fields stand in ascending order and don't overlap; gaps are allowed, and nothing has to be
/// aligned. `extent` is a number that readers only carry; without it, it is the record's size. Numbers are
/// decimal or 0x hexadecimal, at most 2147483647. Names have up to 255 characters, arrays up to 8 dimensions,
/// structures stand up to 32 deep, the record included.
class LayoutParser
{
public:
    /// `fileName` is for the messages only.
    LayoutParser(std::istream& text, std::string fileName);

    /// Call once. Throws std::runtime_error with "file:line: reason" for the first line that is wrong.
    RecordLayout parse();

    /// Whether `text` can name a field, and anything else in C.
    static bool isName(const std::string& text);

private:
    typedef std::vector<std::string> Words;

    bool nextLine();
    void parseRecord();
    LayoutNode parseField();
    void addField(LayoutNode field);
    void closeStructure();

    void parseDeclarator(const std::string& word, LayoutNode& node) const;
    std::uint32_t parseNumber(const std::string& what, const std::string& digits) const;
    std::uint32_t parseKeyNumber(const std::string& key, std::size_t index) const;
    void refuseOversize(const LayoutNode& node) const;
    void expectLineEnd(std::size_t index) const;
    [[noreturn]] void refuse(const std::string& reason) const;

    std::istream& m_text;
    std::string m_fileName;
    int m_lineNumber = 0;
    Words m_words; // of the line under work, never empty after nextLine()
    RecordLayout m_layout;
    std::vector<LayoutNode> m_open; // structures without their `end`, the record first
};

} // namespace Lodestone

#endif
