#ifndef LODESTONE_APP_SONDE_LD_DATA_H
#define LODESTONE_APP_SONDE_LD_DATA_H

#include <cstdint>

typedef std::uint8_t sonde_uint8_t;
typedef std::uint32_t sonde_size_t;

/// Gives the description of the LodestoneDiag record as it goes out on channel 10999: 13 bytes of header, a
/// zlib stream and zeros up to the end (docs/protocol.md has the format). The array is constant and lives as
/// long as the library; `bufferSize` receives its whole size of 256 bytes. Neither pointer may be null. Any
/// thread.
void sondeGet_LodestoneDiag(const void** dataDescriptionBuffer, sonde_size_t* bufferSize);

#endif
