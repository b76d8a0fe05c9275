#ifndef LODESTONE_CLIENT_TAPOPTIONS_H
#define LODESTONE_CLIENT_TAPOPTIONS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace LodestoneTap
{

/// A command line that can't be carried out, with one line of text.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// What the command line asks for.
struct TapOptions
{
    enum class Command
    {
        WATCH,
        HELP,
        VERSION
    };

    Command command = Command::HELP;
    std::string host; ///< A name or an IPv4 address, printable ASCII.
    std::uint16_t port = 0;
    bool once = false;
    bool json = false;
    std::chrono::milliseconds interval = std::chrono::seconds(1);
    std::chrono::milliseconds timeout = std::chrono::seconds(10);
    std::optional<std::chrono::milliseconds> duration; ///< Of --seconds.
    std::uint64_t memoryBytes = std::uint64_t{256} << 20;

    std::string endpoint() const { return host + ":" + std::to_string(port); }

    /// `arguments` without the program's name. Throws UsageError.
    static TapOptions parse(const std::vector<std::string>& arguments);

    /// The text of --help, with a line feed at its end.
    static const char* help();
};

} // namespace LodestoneTap

#endif
