#include "DescriptionEncoder.h"

#include <new>
#include <stdexcept>
#include <zlib.h>

namespace Lodestone
{

namespace
{

const std::uint8_t TAG_NAME = 0x64;
const std::uint8_t TAG_DIMENSIONS = 0x65;
const std::uint8_t TAG_OFFSET = 0x66;
const std::uint8_t TAG_SIZE = 0x67;
const std::uint8_t TAG_ROOT_EXTENT = 0x68;
const std::uint8_t TAG_TYPE = 0x96;
const std::uint32_t TYPE_END_OF_STRUCTURE = 0xFF;

const std::uint8_t PREAMBLE[] = {0xDA, 0xDE, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00};
const std::uint8_t BEFORE_STREAM = 0x02;
const std::size_t ARRAY_STEP = 64;

void addBigEndian(DescriptionEncoder::Bytes& bytes, std::uint32_t value)
{
    for (const int shift : {24, 16, 8, 0}) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

} // namespace

DescriptionEncoder::DescriptionEncoder(const RecordLayout& layout)
{
    addNode(layout.root, 0, &layout.rootExtent);
    pack();
}

DescriptionEncoder::Bytes DescriptionEncoder::array(std::size_t arraySize) const
{
    if (arraySize == 0) {
        arraySize = (m_packed.size() + ARRAY_STEP - 1) / ARRAY_STEP * ARRAY_STEP;
    }
    if (m_packed.size() > arraySize) {
        throw std::runtime_error("the description takes " + std::to_string(m_packed.size()) +
                                 " bytes, more than " + std::to_string(arraySize));
    }
    Bytes array = m_packed;
    array.resize(arraySize, 0);
    return array;
}

/// `base` is where the enclosing structure begins in the record; fields of an array's elements are described
/// by those of element 0. `rootExtent` is null below the root.
void DescriptionEncoder::addNode(const LayoutNode& node, std::uint32_t base, const std::uint32_t* rootExtent)
{
    addItem(TAG_NAME, static_cast<std::uint32_t>(node.name.size()));
    m_description.insert(m_description.end(), node.name.begin(), node.name.end());
    addItem(TAG_DIMENSIONS, static_cast<std::uint32_t>(node.dimensions.size()));
    for (const std::uint32_t extent : node.dimensions) {
        addBigEndian(m_description, extent);
    }
    addItem(TAG_OFFSET, base + node.offset);
    addItem(TAG_SIZE, node.size);
    if (rootExtent != nullptr) {
        addItem(TAG_ROOT_EXTENT, *rootExtent);
    }
    addItem(TAG_TYPE, static_cast<std::uint32_t>(node.type));
    if (node.type == FieldType::STRUCTURE) {
        for (const LayoutNode& field : node.fields) {
            addNode(field, base + node.offset, nullptr);
        }
        addItem(TAG_TYPE, TYPE_END_OF_STRUCTURE);
    }
}

void DescriptionEncoder::addItem(std::uint8_t tag, std::uint32_t operand)
{
    m_description.push_back(tag);
    addBigEndian(m_description, operand);
}

void DescriptionEncoder::pack()
{
    m_packed.assign(std::begin(PREAMBLE), std::end(PREAMBLE));
    addBigEndian(m_packed, static_cast<std::uint32_t>(m_description.size()));
    m_packed.push_back(BEFORE_STREAM);

    const std::size_t headerSize = m_packed.size();
    uLongf streamSize = compressBound(static_cast<uLong>(m_description.size()));
    m_packed.resize(headerSize + streamSize);
    if (compress2(m_packed.data() + headerSize, &streamSize, m_description.data(),
                  static_cast<uLong>(m_description.size()), Z_BEST_COMPRESSION) != Z_OK) {
        throw std::bad_alloc(); // its only failure with room for the worst case
    }
    m_packed.resize(headerSize + streamSize);
}

} // namespace Lodestone
