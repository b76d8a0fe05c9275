#ifndef LODESTONE_FUZZ_NAIVECONFIG_H
#define LODESTONE_FUZZ_NAIVECONFIG_H

#include "ConfigStringParser.h"

#include <string>

/// What is to become of a configuration string.
struct NaiveConfig
{
    std::string error; ///< Why it is refused; empty if it is accepted.
    Lodestone::ConfigStringParser::Config config = {};

    bool accepted() const { return error.empty(); }
};

/// Reads a configuration string the plain way: takes it apart into lists of words and looks at these, without
/// a stream and without anything of the library's own parser.
NaiveConfig naiveConfig(const std::string& text);

#endif
