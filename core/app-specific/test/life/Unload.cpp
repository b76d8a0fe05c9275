// A host that loads the real shared library, streams, and unloads it with a live queue and a connected
// client. Argument: the library.

#include "Child.h"

#include "ALStructs_extif.h"

#include <dlfcn.h>
#include <string>

namespace
{

typedef alif_int32_t (*InitFunction)(alif_int32_t, const alif_int8_t*);
typedef alif_int32_t (*ApplyFunction)(AlgoMeasBuffer*, alif_uint32_t, alif_int32_t);

template<typename Function>
Function find(void* library, const char* name)
{
    void* const symbol = ::dlsym(library, name);
    REQUIRE(symbol != nullptr);
    return reinterpret_cast<Function>(symbol);
}

void liveWith(const char* path, bool frames)
{
    void* const library = ::dlopen(path, RTLD_NOW);
    REQUIRE(library != nullptr);
    const auto init = find<InitFunction>(library, "CLodestone_Lodestone_Init");
    const auto apply = find<ApplyFunction>(library, "CLodestone_Lodestone_Apply");
    const int port = freePort();
    const std::string config = "0," + std::to_string(port) + ",1,1,5:10,n";
    REQUIRE(init(1, reinterpret_cast<const alif_int8_t*>(config.c_str())) == 0);
    StreamClient client(port);
    AlgoMeasBuffer buffer = {};
    buffer.buffer = "abcd";
    buffer.sizeTotal = 4;
    buffer.channelID = 10;
    if (frames) {
        REQUIRE(waitFor([&] { return apply(&buffer, 1, 1) == 0 && client.somethingWaits(); }));
        REQUIRE(client.readCycle().complete);
    }

    REQUIRE(::dlclose(library) == 0);
    REQUIRE(::dlopen(path, RTLD_NOW | RTLD_NOLOAD) == nullptr);
    REQUIRE(client.waitForEnd());
    REQUIRE(Child([] {}).endsWell()); // nothing of the library is left that a fork would call
}

} // namespace

int main(int argc, char** argv)
{
    REQUIRE(argc == 2);
    const Child host([&] {
        for (int round = 0; round < 3; ++round) {
            liveWith(argv[1], round > 0); // at first no thread of the process may have ended
        }
    });
    return host.endsWell() ? 0 : 1;
}
