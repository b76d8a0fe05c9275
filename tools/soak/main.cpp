#include "Soak.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <unistd.h>

namespace
{

const char* const HELP = R"(usage: lodestone-soak [--seconds N] [--seed N]

Taps random frames for a long time, with one random configuration and client after another, and accounts for every
buffer that a reading client was owed. Prints a line every ten seconds and a table at the end; Ctrl-C ends it early.

  --seconds N   how long; 600 without it
  --seed N      of what the host and the clients do; random without it

Exit code: 0 if all is well, 1 if not, 2 for wrong arguments.
)";

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void interrupt(int)
{
    g_interrupted = 1;
}

// A call of the host that never returns: nothing else would tell.
extern "C" void hang(int)
{
    const char text[] = "lodestone-soak: the host hangs\n";
    const ssize_t written = ::write(STDERR_FILENO, text, sizeof text - 1);
    static_cast<void>(written);
    ::_exit(1);
}

bool isNumber(const char* text)
{
    return text != nullptr && *text != 0 && std::strlen(text) < 10 &&
           std::strspn(text, "0123456789") == std::strlen(text);
}

unsigned numberOf(const char* text)
{
    return static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

int soak(unsigned seconds, unsigned seed)
{
    struct sigaction action = {};
    action.sa_handler = interrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND); // the second one ends it the hard way
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = hang;
    sigaction(SIGALRM, &action, nullptr);
    Soak run(static_cast<int>(seconds), seed, [] { return g_interrupted != 0; });
    std::printf("%u s, seed %u\n", seconds, seed);
    return run.run() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
try {
    unsigned seconds = 600;
    unsigned seed = std::random_device()() % 1000000000U;
    for (int k = 1; k < argc; k += 2) {
        if (std::strcmp(argv[k], "--help") == 0) {
            std::fputs(HELP, stdout);
            return 0;
        }
        unsigned* const value = std::strcmp(argv[k], "--seconds") == 0 ? &seconds
                                : std::strcmp(argv[k], "--seed") == 0  ? &seed
                                                                       : nullptr;
        if (value == nullptr || k + 1 >= argc || !isNumber(argv[k + 1])) {
            std::fprintf(stderr, "lodestone-soak: '%s' with a number is what it takes, see --help\n",
                         argv[k]);
            return 2;
        }
        *value = numberOf(argv[k + 1]);
    }
    return soak(seconds, seed);
} catch (const std::exception& error) {
    std::fprintf(stderr, "lodestone-soak: %s\n", error.what());
    return 1;
}
