#ifndef LODESTONE_TEST_STANDIN_H
#define LODESTONE_TEST_STANDIN_H

#include <cstdint>
#include <ctime>

/// STAND_IN(int, usleep, (useconds_t time_us)) { ... } is what the linker puts in the place of that function,
/// in a program with a WRAP of it. The function itself is __real_usleep then.
#define STAND_IN(result, name, parameters)                                                                   \
    extern "C" result __real_##name parameters;                                                              \
    extern "C" result __wrap_##name parameters

const std::int64_t NS_PER_US = 1000;
const std::int64_t NS_PER_MS = 1000 * NS_PER_US;
const std::int64_t NS_PER_S = 1000 * NS_PER_MS;

inline std::int64_t nanoseconds(const timespec& time)
{
    return time.tv_sec * NS_PER_S + time.tv_nsec;
}

inline timespec timespecOf(std::int64_t time_ns)
{
    return {static_cast<time_t>(time_ns / NS_PER_S), static_cast<long>(time_ns % NS_PER_S)};
}

#endif
