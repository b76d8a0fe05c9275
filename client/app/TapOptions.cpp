#include "TapOptions.h"

#include <algorithm>
#include <charconv>
#include <cstddef>

namespace LodestoneTap
{

namespace
{

constexpr double MIN_SECONDS = 0.05;
constexpr double MAX_SECONDS = 1e6;
constexpr std::uint64_t MAX_MEMORY_MIB = std::uint64_t{1} << 20;

/// The whole of `text` as a number, in any locale; false if it is none.
template<typename Number>
bool toNumber(const std::string& text, Number& number)
{
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

std::chrono::milliseconds toSeconds(const std::string& option, const std::string& text)
{
    double seconds = 0.0;
    if (!toNumber(text, seconds) || !(seconds >= MIN_SECONDS && seconds <= MAX_SECONDS)) {
        throw UsageError(option + " needs a number of seconds from 0.05 to 1000000, got '" + text + "'");
    }
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000.0));
}

std::uint64_t toMemory(const std::string& option, const std::string& text)
{
    std::uint64_t mebibytes = 0;
    if (!toNumber(text, mebibytes) || mebibytes < 1 || mebibytes > MAX_MEMORY_MIB) {
        throw UsageError(option + " needs a number of MiB from 1 to 1048576, got '" + text + "'");
    }
    return mebibytes << 20;
}

/// HOST:PORT. The host reaches the screen and the documents, so it is held to plain characters; a colon in it
/// would be an IPv6 address, which the library doesn't listen on.
void takeEndpoint(const std::string& text, TapOptions& options)
{
    const std::size_t colon = text.rfind(':');
    options.host = text.substr(0, colon);
    const bool plainHost = !options.host.empty() &&
                           std::all_of(options.host.begin(), options.host.end(),
                                       [](char c) { return c > ' ' && c <= '~' && c != ':' && c != '['; });
    if (colon == std::string::npos || !plainHost || !toNumber(text.substr(colon + 1), options.port) ||
        options.port == 0) {
        throw UsageError("'" + text +
                         "' is no HOST:PORT with a name or IPv4 address and a port of 1 to 65535");
    }
}

/// Takes the option at `at`, and its value behind it if it has one.
void takeOption(const std::vector<std::string>& arguments, std::size_t& at, TapOptions& options)
{
    const std::string& option = arguments[at];
    const auto value = [&arguments, &at, &option]() -> const std::string& {
        if (at + 1 == arguments.size()) {
            throw UsageError(option + " needs a value");
        }
        return arguments[++at];
    };
    if (option == "--once") {
        options.once = true;
    } else if (option == "--json") {
        options.json = true;
    } else if (option == "--interval") {
        options.interval = toSeconds(option, value());
    } else if (option == "--timeout") {
        options.timeout = toSeconds(option, value());
    } else if (option == "--seconds") {
        options.duration = toSeconds(option, value());
    } else if (option == "--memory") {
        options.memoryBytes = toMemory(option, value());
    } else {
        throw UsageError("unknown option '" + option + "'");
    }
}

} // namespace

TapOptions TapOptions::parse(const std::vector<std::string>& arguments)
{
    TapOptions options;
    const auto has = [&arguments](const char* a, const char* b) {
        return std::any_of(arguments.begin(), arguments.end(),
                           [a, b](const std::string& argument) { return argument == a || argument == b; });
    };
    if (has("--help", "-h") || has("--version", "-V")) {
        options.command = has("--help", "-h") ? Command::HELP : Command::VERSION;
        return options;
    }
    if (arguments.empty() || arguments[0] != "watch") {
        throw UsageError(arguments.empty() ? "a command is missing"
                                           : "unknown command '" + arguments[0] + "'");
    }
    options.command = Command::WATCH;
    for (std::size_t at = 1; at < arguments.size(); ++at) {
        if (!arguments[at].empty() && arguments[at][0] == '-') {
            takeOption(arguments, at, options);
        } else if (options.host.empty()) {
            takeEndpoint(arguments[at], options);
        } else {
            throw UsageError("'" + arguments[at] + "' is one argument too many");
        }
    }
    if (options.host.empty()) {
        throw UsageError("watch needs HOST:PORT");
    }
    if (options.once && options.duration) {
        throw UsageError("--once and --seconds exclude each other");
    }
    return options;
}

const char* TapOptions::help()
{
    return R"(Usage: lodestone-tap watch HOST:PORT [OPTION]...
Shows what a host streams through the Lodestone library: its channels with their sizes and rates,
the fields of the records that describe themselves, the queue, skipped buffers and run times of the
host.

On a terminal the picture is redrawn in place; elsewhere one block follows the other. The library
serves one client at a time: to watch is to cut off the client that was connected before.

  --interval S   seconds between two pictures (default 1)
  --once         wait for one whole picture, print it and end: that takes one second of stream with
                 at least one NORMAL cycle
  --seconds S    end after S seconds
  --timeout S    give up connecting, or waiting with --once, after S seconds (default 10)
  --json         one JSON document a picture, each on a line of its own
  --memory MIB   hold at most that much of the stream at a time, in MiB (default 256)
  --help         print this text
  --version      print the version

kB are 1000 bytes. Rates are means over the last 5 seconds. "lost" counts split buffers that began
and were never complete. Ctrl-C ends the program.

Exit status: 0 fine, also after Ctrl-C; 1 no connection, the stream ended or broke, or --once found
no whole picture in time; 2 wrong usage.
)";
}

} // namespace LodestoneTap
