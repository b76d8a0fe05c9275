#ifndef LODESTONE_BENCH_LOAD_H
#define LODESTONE_BENCH_LOAD_H

#include "ALStructs_extif.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// A frame's buffers, with their memory.
class Load
{
public:
    Load(std::string name, const std::vector<std::pair<int, std::size_t>>& groups) : m_name(std::move(name))
    {
        for (const auto& group : groups) {
            for (int k = 0; k < group.first; ++k) {
                m_memory.emplace_back(group.second, static_cast<char>(k));
                AlgoMeasBuffer buffer = {};
                buffer.buffer = m_memory.back().data();
                buffer.sizeTotal = static_cast<alif_uint32_t>(group.second);
                buffer.channelID = static_cast<alif_int32_t>(m_memory.size());
                m_buffers.push_back(buffer);
                m_bytes += group.second;
            }
        }
    }

    /// A load of the same shape with memory of its own.
    Load(const Load& other)
        : m_name(other.m_name), m_memory(other.m_memory), m_buffers(other.m_buffers), m_bytes(other.m_bytes)
    {
        for (std::size_t k = 0; k < m_buffers.size() && k < m_memory.size(); ++k) {
            m_buffers[k].buffer = m_memory[k].data();
        }
    }
    Load& operator=(const Load&) = delete;

    const std::string& name() const { return m_name; }
    std::vector<AlgoMeasBuffer>& buffers() { return m_buffers; }
    const std::vector<AlgoMeasBuffer>& buffers() const { return m_buffers; }

    std::size_t bytes() const { return m_bytes; }
    /// On the wire: all buffers whole, with their headers; and the cycle that carries them, with its
    /// diagnostics.
    std::size_t entryBytes() const { return m_bytes + m_buffers.size() * 20; }
    std::size_t cycleBytes() const { return 12 + entryBytes() + 20 + 208 + 20 + 256; }

    /// What follows the basic fields of a configuration string: every channel with that type.
    std::string channels(char type, int first = 0, int last = -1) const
    {
        std::string text;
        const int behind = last < 0 ? static_cast<int>(m_buffers.size()) : last;
        for (int k = first; k < behind; ++k) {
            text += ":" + std::to_string(m_buffers[static_cast<std::size_t>(k)].channelID) + "," + type;
        }
        return text;
    }

private:
    std::string m_name;
    std::vector<std::vector<char>> m_memory;
    std::vector<AlgoMeasBuffer> m_buffers;
    std::size_t m_bytes = 0;
};

#endif
