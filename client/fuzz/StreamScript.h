#ifndef LODESTONE_CLIENT_FUZZ_STREAMSCRIPT_H
#define LODESTONE_CLIENT_FUZZ_STREAMSCRIPT_H

#include "support/StreamBytes.h"

/// Any bytes, read as the steps of a library, and the stream that it sends. Headers and slices are right, so
/// that what the numbers mean is tried and not only how they are checked: channels that come and go, buffers
/// in parts with gaps between them, records, descriptions sound and broken. At most 64 cycles.
LodestoneTapTest::Bytes streamOfScript(const LodestoneTapTest::Bytes& script);

#endif
