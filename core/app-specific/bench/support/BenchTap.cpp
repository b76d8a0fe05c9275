#include "BenchTap.h"

#include "Lodestone.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

void applyFrame(std::vector<AlgoMeasBuffer>& buffers)
{
    Lodestone::Lodestone_Apply(buffers.data(), static_cast<alif_uint32_t>(buffers.size()), 0);
}

BenchTap::BenchTap(Load& load, const std::string& basic, const std::string& channels, Load* constants)
    : m_load(load), m_port(freePort())
{
    if (Lodestone::Lodestone_Init(1, "0," + std::to_string(m_port) + "," + basic + channels) != 0) {
        std::fprintf(stderr, "%s\n", Lodestone::GetLastErrorString().c_str());
        std::exit(1);
    }
    m_reader = std::make_unique<DrainingReader>(m_port);
    if (constants != nullptr) {
        Lodestone::Lodestone_Apply(constants->buffers().data(),
                                   static_cast<alif_uint32_t>(constants->buffers().size()), 1);
    }
    while (m_reader->bytes() == 0) {
        frame();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    m_reader->awaitQuiet(20);
}

BenchTap::~BenchTap()
{
    m_reader->pause(false);
    Lodestone::Lodestone_Init(0, "");
}
