#include "ReaderError.h"
#include "TapConnection.h"
#include "TapOptions.h"
#include "WatchProgram.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vector>

using LodestoneTap::TapConnection;
using LodestoneTap::TapOptions;
using LodestoneTap::WatchProgram;

namespace
{

constexpr int STOP_SIGNALS[] = {SIGINT, SIGTERM};

extern "C" void exitNow(int)
{
    _exit(WatchProgram::EXIT_FINE);
}

// While a name is looked up nothing else can be watched, and nothing is open yet that would want care.
void stopAtOnceOnSignal()
{
    for (const int number : STOP_SIGNALS) {
        std::signal(number, exitNow);
    }
}

/// From here on the signals wait in the descriptor that is returned, to be seen between two reads.
int stopThroughDescriptor()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : STOP_SIGNALS) {
        sigaddset(&signals, number);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

/// The descriptor of standard output if it is a terminal that can move its cursor, else -1.
int outputTerminal()
{
    const char* const kind = std::getenv("TERM");
    const bool canMove = kind != nullptr && *kind != '\0' && std::strcmp(kind, "dumb") != 0;
    return canMove && isatty(STDOUT_FILENO) != 0 ? STDOUT_FILENO : -1;
}

int watch(const TapOptions& options)
{
    stopAtOnceOnSignal();
    TapConnection connection(options.host, options.port, options.timeout);
    const int stopDescriptor = stopThroughDescriptor();
    WatchProgram program(options, connection, std::cout, std::cerr, outputTerminal());
    return program.run(stopDescriptor);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const TapOptions options = TapOptions::parse(std::vector<std::string>(argv + 1, argv + argc));
        switch (options.command) {
        case TapOptions::Command::HELP:
            std::cout << TapOptions::help();
            return WatchProgram::EXIT_FINE;
        case TapOptions::Command::VERSION:
            std::cout << "lodestone-tap " LODESTONE_TAP_VERSION "\n";
            return WatchProgram::EXIT_FINE;
        case TapOptions::Command::WATCH:
            return watch(options);
        }
    } catch (const LodestoneTap::UsageError& error) {
        std::cerr << "lodestone-tap: " << error.what() << "\nTry: lodestone-tap --help\n";
        return WatchProgram::EXIT_USAGE;
    } catch (const std::exception& error) {
        std::cerr << "lodestone-tap: " << error.what() << "\n";
    }
    return WatchProgram::EXIT_STREAM;
}
