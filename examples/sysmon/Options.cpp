#include "Options.h"

#include <sstream>
#include <stdexcept>

namespace Sysmon
{

namespace
{

/// Takes plain decimal numbers only, and the whole text.
double parseNumber(const std::string& option, const std::string& text, double least, double most)
{
    std::istringstream stream(text);
    double number = 0;
    if (text.find_first_not_of("0123456789.") != std::string::npos || !(stream >> number) ||
        stream.peek() != std::istringstream::traits_type::eof() || number < least || number > most) {
        std::ostringstream message;
        message << option << ": '" << text << "' is no number from " << least << " to " << most;
        throw std::invalid_argument(message.str());
    }
    return number;
}

int parsePort(const std::string& text)
{
    const bool isWhole = text.find('.') == std::string::npos;
    if (isWhole && parseNumber("--port", text, 0, 65535) == 0) {
        return 0;
    }
    if (!isWhole) {
        throw std::invalid_argument("--port: '" + text + "' is no whole number");
    }
    return static_cast<int>(parseNumber("--port", text, 1000, 65535));
}

} // namespace

const char* const Options::HELP = R"(usage: sysmon [--rate HZ] [--port N] [--seconds S]

Watches the machine that it runs on and streams what it sees to one client over TCP.

  --rate HZ     frames per second, 0.1 to 1000; 20 without it
  --port N      where the client connects, 1000 to 65535, or 0 for any free port; 5000 without it
  --seconds S   ends after that time; without it, at Ctrl-C or SIGTERM

Exit code: 0, 1 if streaming can't start, 2 for wrong arguments.
)";

Options Options::parse(const std::vector<std::string>& arguments)
{
    Options options;
    for (auto it = arguments.begin(); it != arguments.end(); ++it) {
        const std::string& option = *it;
        if (option == "--help" || option == "-h") {
            options.wantsHelp = true;
            return options;
        }
        if (option != "--rate" && option != "--port" && option != "--seconds") {
            throw std::invalid_argument("unknown argument '" + option + "'; --help tells more");
        }
        if (++it == arguments.end()) {
            throw std::invalid_argument(option + " needs a value");
        }
        if (option == "--rate") {
            options.rate_Hz = parseNumber(option, *it, 0.1, 1000);
        } else if (option == "--port") {
            options.port = parsePort(*it);
        } else {
            options.seconds = parseNumber(option, *it, 0.001, 1e6);
        }
    }
    return options;
}

} // namespace Sysmon
