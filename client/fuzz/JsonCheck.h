#ifndef LODESTONE_CLIENT_FUZZ_JSONCHECK_H
#define LODESTONE_CLIENT_FUZZ_JSONCHECK_H

#include <string>

/// Whether `text` is one JSON document and nothing else, of printable ASCII only.
bool isJson(const std::string& text);

#endif
