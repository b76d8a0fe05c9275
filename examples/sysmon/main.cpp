// sysmon: a host whose algorithm watches the machine that it runs on.
#include "FrameLoop.h"
#include "FreePort.h"
#include "Lodestone.h"
#include "Options.h"
#include "StopSignals.h"
#include "SystemMonitor.h"

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

namespace
{

void run(const Sysmon::Options& options)
{
    Sysmon::StopSignals stop;
    Sysmon::SystemMonitor monitor(options.rate_Hz);
    const int port = Sysmon::findPort(options.port);
    const std::string config = monitor.configString(port);
    // Flushed, for whoever reads the port through a pipe.
    std::printf("configuration: %s\nport: %d\n", config.c_str(), port);
    std::fflush(stdout);

    if (Lodestone::Lodestone_Init(1, config) != 0) {
        throw std::runtime_error(Lodestone::GetLastErrorString());
    }
    Sysmon::FrameLoop loop(monitor, stop, options);
    loop.run();
    Lodestone::Lodestone_Init(0, "");
    loop.printSummary();
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const Sysmon::Options options = Sysmon::Options::parse({argv + 1, argv + argc});
        if (options.wantsHelp) {
            std::fputs(Sysmon::Options::HELP, stdout);
        } else {
            run(options);
        }
        return 0;
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "sysmon: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "sysmon: %s\n", e.what());
        return 1;
    }
}
