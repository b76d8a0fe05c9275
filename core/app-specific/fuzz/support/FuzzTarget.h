#ifndef LODESTONE_FUZZ_FUZZTARGET_H
#define LODESTONE_FUZZ_FUZZTARGET_H

#include <cstddef>
#include <cstdint>
#include <string>

/// What a fuzz target defines and libFuzzer, or ReplayCorpus, calls for every input. Returns 0. One thread.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Ends the program, with `what` on standard error, if `holds` is false: that makes the input a finding.
void fuzzCheck(bool holds, const std::string& what);

#endif
