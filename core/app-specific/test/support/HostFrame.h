#ifndef LODESTONE_TEST_HOSTFRAME_H
#define LODESTONE_TEST_HOSTFRAME_H

#include "ALStructs_extif.h"

#include <string>
#include <utility>
#include <vector>

/// What a host delivers in one call: channel and bytes of each buffer.
typedef std::vector<std::pair<int, std::string>> Frame;

/// The frame as the host's array; it borrows the bytes.
inline std::vector<AlgoMeasBuffer> arrayOf(const Frame& frame)
{
    std::vector<AlgoMeasBuffer> array;
    for (const auto& item : frame) {
        AlgoMeasBuffer buffer = {};
        buffer.buffer = item.second.data();
        buffer.sizeTotal = static_cast<alif_uint32_t>(item.second.size());
        buffer.channelID = item.first;
        array.push_back(buffer);
    }
    return array;
}

#endif
