// A host in C++: hello_cpp [PORT [FRAMES]]. Taps a few signals at 20 Hz, five seconds by default.
#include "Lodestone.h"

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

int main(int argc, char** argv)
{
    const std::string port = argc > 1 ? argv[1] : "5000";
    const int frames = argc > 2 ? static_cast<int>(std::strtol(argv[2], nullptr, 10)) : 100;
    AlgoVersion version;
    if (Lodestone::Lodestone_QueryVersion(&version) == 0) {
        std::cout << "Lodestone " << version.major << '.' << version.minor << '.' << version.patch
                  << " on port " << port << std::endl;
    }
    // Channel 100 goes out whole, 110 in 4 parts, 120 once per client.
    bool ok = Lodestone::Lodestone_Init(1, "0," + port + ",4,10,20:100,n:110,s:120,o") == 0;

    const std::string about = "hello from C++";
    AlgoMeasBuffer constant = {about.data(), static_cast<alif_uint32_t>(about.size()), 0, 120};
    ok = ok && Lodestone::Lodestone_Apply(&constant, 1, 1) == 0;

    std::vector<float> samples(1000);
    for (int frame = 0; ok && frame < frames; ++frame) {
        samples[static_cast<std::size_t>(frame) % samples.size()] = static_cast<float>(frame);
        AlgoMeasBuffer buffers[] = {{&frame, sizeof frame, 0, 100},
                                    {samples.data(), static_cast<alif_uint32_t>(4 * samples.size()), 0, 110}};
        ok = Lodestone::Lodestone_Apply(buffers, 2, 0) == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!ok) {
        std::cerr << Lodestone::GetLastErrorString() << std::endl;
    }
    Lodestone::Lodestone_Init(0, "");
    return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
