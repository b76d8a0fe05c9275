#include "LayoutParser.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace Lodestone
{

namespace
{

// What a reader takes: docs/protocol.md.
const std::size_t MAX_DEPTH = 32;
const std::size_t MAX_DIMENSIONS = 8;
const std::size_t MAX_NAME = 255;
// A buffer's size is a signed 32-bit number on the wire.
const std::uint32_t MAX_NUMBER = 0x7FFFFFFF;

struct ScalarType
{
    const char* word;
    FieldType type;
    std::uint32_t size;
};

const ScalarType SCALAR_TYPES[] = {
    {"int8", FieldType::SIGNED_INTEGER, 1},    {"uint8", FieldType::UNSIGNED_INTEGER, 1},
    {"int16", FieldType::SIGNED_INTEGER, 2},   {"uint16", FieldType::UNSIGNED_INTEGER, 2},
    {"int32", FieldType::SIGNED_INTEGER, 4},   {"uint32", FieldType::UNSIGNED_INTEGER, 4},
    {"int64", FieldType::SIGNED_INTEGER, 8},   {"uint64", FieldType::UNSIGNED_INTEGER, 8},
    {"float32", FieldType::FLOATING_POINT, 4}, {"float64", FieldType::FLOATING_POINT, 8},
};

std::string quoted(const std::string& text)
{
    return "'" + text + "'";
}

} // namespace

LayoutParser::LayoutParser(std::istream& text, std::string fileName)
    : m_text(text), m_fileName(std::move(fileName))
{}

RecordLayout LayoutParser::parse()
{
    if (!nextLine()) {
        refuse("there is no record");
    }
    parseRecord();
    while (!m_open.empty()) {
        if (!nextLine()) {
            refuse("'end' is missing for " + quoted(m_open.back().name));
        }
        if (m_words[0] == "end") {
            expectLineEnd(1);
            closeStructure();
        } else if (LayoutNode field = parseField(); field.type == FieldType::STRUCTURE) {
            m_open.push_back(std::move(field));
        } else {
            addField(std::move(field));
        }
    }
    if (nextLine()) {
        refuse("nothing may follow the record's 'end'");
    }
    return std::move(m_layout);
}

bool LayoutParser::isName(const std::string& text)
{
    const char* const nameChars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
    return !text.empty() && text.size() <= MAX_NAME &&
           text.find_first_not_of(nameChars) == std::string::npos &&
           std::isdigit(static_cast<unsigned char>(text.front())) == 0;
}

bool LayoutParser::nextLine()
{
    std::string line;
    while (std::getline(m_text, line)) {
        ++m_lineNumber;
        std::istringstream words(line.substr(0, line.find('#')));
        m_words.clear();
        for (std::string word; words >> word;) {
            m_words.push_back(word);
        }
        if (!m_words.empty()) {
            return true;
        }
    }
    return false;
}

void LayoutParser::parseRecord()
{
    if (m_words[0] != "record" || m_words.size() < 2) {
        refuse("expected 'record NAME size BYTES'");
    }
    LayoutNode root;
    root.name = m_words[1];
    if (!isName(root.name)) {
        refuse(quoted(root.name) + " is no name");
    }
    root.size = parseKeyNumber("size", 2);
    m_layout.rootExtent = root.size;
    std::size_t used = 4;
    if (m_words.size() > used) {
        m_layout.rootExtent = parseKeyNumber("extent", used);
        used += 2;
    }
    expectLineEnd(used);
    m_open.push_back(std::move(root));
}

LayoutNode LayoutParser::parseField()
{
    LayoutNode field;
    const bool isStructure = m_words[0] == "struct";
    if (!isStructure) {
        const auto* scalar = std::find_if(std::begin(SCALAR_TYPES), std::end(SCALAR_TYPES),
                                          [this](const ScalarType& type) { return m_words[0] == type.word; });
        if (scalar == std::end(SCALAR_TYPES)) {
            refuse("unknown type " + quoted(m_words[0]));
        }
        field.type = scalar->type;
        field.size = scalar->size;
    } else if (m_open.size() == MAX_DEPTH) {
        refuse("structures are nested more than " + std::to_string(MAX_DEPTH) + " deep");
    }
    if (m_words.size() < 2) {
        refuse("the field's name is missing");
    }
    parseDeclarator(m_words[1], field);
    field.offset = parseKeyNumber("at", 2);
    if (isStructure) {
        field.size = parseKeyNumber("size", 4);
    }
    expectLineEnd(isStructure ? 6 : 4);
    refuseOversize(field);
    return field;
}

/// A structure comes here at its `end`, so the line of a misfit is its last one.
void LayoutParser::addField(LayoutNode field)
{
    LayoutNode& parent = m_open.back();
    for (const LayoutNode& sibling : parent.fields) {
        if (sibling.name == field.name) {
            refuse(quoted(parent.name) + " already has a field " + quoted(field.name));
        }
    }
    if (!parent.fields.empty()) {
        const LayoutNode& previous = parent.fields.back();
        const std::uint64_t previousEnd = previous.offset + previous.byteSize();
        if (field.offset < previousEnd) {
            refuse(quoted(field.name) + " at " + std::to_string(field.offset) + " begins before the end of " +
                   quoted(previous.name) + " at " + std::to_string(previousEnd));
        }
    }
    const std::uint64_t end = field.offset + field.byteSize();
    if (end > parent.size) {
        refuse(quoted(field.name) + " ends at " + std::to_string(end) + ", but " + quoted(parent.name) +
               " has " + std::to_string(parent.size) + " bytes");
    }
    parent.fields.push_back(std::move(field));
}

void LayoutParser::closeStructure()
{
    LayoutNode closed = std::move(m_open.back());
    m_open.pop_back();
    if (closed.fields.empty()) {
        refuse(quoted(closed.name) + " has no fields");
    }
    if (m_open.empty()) {
        m_layout.root = std::move(closed);
    } else {
        addField(std::move(closed));
    }
}

void LayoutParser::parseDeclarator(const std::string& word, LayoutNode& node) const
{
    const std::size_t nameEnd = std::min(word.find('['), word.size());
    node.name = word.substr(0, nameEnd);
    if (!isName(node.name)) {
        refuse(quoted(node.name) + " is no name");
    }
    for (std::size_t begin = nameEnd; begin < word.size();) {
        const std::size_t close = word.find(']', begin);
        if (word[begin] != '[' || close == std::string::npos) {
            refuse(quoted(word) + " isn't of the form NAME[N][N]");
        }
        if (node.dimensions.size() == MAX_DIMENSIONS) {
            refuse(quoted(node.name) + " has more than " + std::to_string(MAX_DIMENSIONS) + " dimensions");
        }
        node.dimensions.push_back(parseNumber("dimension", word.substr(begin + 1, close - begin - 1)));
        if (node.dimensions.back() == 0) {
            refuse("a dimension is at least 1");
        }
        begin = close + 1;
    }
}

std::uint32_t LayoutParser::parseNumber(const std::string& what, const std::string& digits) const
{
    // stoull would take a sign and leading blanks, and a leading 0 for octal.
    const bool isHex = digits.compare(0, 2, "0x") == 0;
    std::uint64_t value = 0;
    std::size_t used = 0;
    if (!digits.empty() && std::isdigit(static_cast<unsigned char>(digits.front())) != 0 &&
        digits.size() <= 18) {
        value = std::stoull(digits, &used, isHex ? 16 : 10);
    }
    if (used == 0 || used != digits.size() || value > MAX_NUMBER) {
        refuse(what + " " + quoted(digits) + " is no number from 0 to " + std::to_string(MAX_NUMBER));
    }
    return static_cast<std::uint32_t>(value);
}

std::uint32_t LayoutParser::parseKeyNumber(const std::string& key, std::size_t index) const
{
    if (m_words.size() < index + 2 || m_words[index] != key) {
        refuse("expected '" + key + " N' after " + quoted(m_words[index - 1]));
    }
    return parseNumber(key, m_words[index + 1]);
}

void LayoutParser::refuseOversize(const LayoutNode& node) const
{
    std::uint64_t total = node.size;
    for (const std::uint32_t extent : node.dimensions) {
        total *= extent; // stays below 2^62, since it was at most 2^31 before
        if (total > MAX_NUMBER) {
            refuse(quoted(node.name) + " is larger than " + std::to_string(MAX_NUMBER) + " bytes");
        }
    }
}

void LayoutParser::expectLineEnd(std::size_t index) const
{
    if (m_words.size() > index) {
        refuse("unexpected " + quoted(m_words[index]));
    }
}

void LayoutParser::refuse(const std::string& reason) const
{
    throw std::runtime_error(m_fileName + ":" + std::to_string(m_lineNumber) + ": " + reason);
}

} // namespace Lodestone
