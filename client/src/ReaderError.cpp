#include "ReaderError.h"

namespace LodestoneTap
{

StreamError::StreamError(std::uint64_t offset, std::uint32_t cycle, const std::string& reason)
    : ReaderError("stream broken at byte " + std::to_string(offset) + ", cycle " + std::to_string(cycle) +
                  ": " + reason),
      m_offset(offset), m_cycle(cycle)
{}

} // namespace LodestoneTap
