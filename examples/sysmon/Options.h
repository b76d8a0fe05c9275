#ifndef LODESTONE_EXAMPLES_OPTIONS_H
#define LODESTONE_EXAMPLES_OPTIONS_H

#include <string>
#include <vector>

namespace Sysmon
{

/// The command line.
struct Options
{
    static const char* const HELP;

    double rate_Hz = 20; ///< 0.1 to 1000.
    int port = 5000;     ///< 1000 to 65535, or 0 for a free one.
    double seconds = 0;  ///< Time to run; 0 without an end.
    bool wantsHelp = false;

    /// `arguments` are those behind the program's name. Throws std::invalid_argument with one line of text.
    static Options parse(const std::vector<std::string>& arguments);
};

} // namespace Sysmon

#endif
