#ifndef LODESTONE_TEST_LIFE_CHILD_H
#define LODESTONE_TEST_LIFE_CHILD_H

#include "StreamClient.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

/// Ends the process as failed, without its exit handlers.
#define REQUIRE(condition)                                                                                   \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition);                     \
            ::_exit(1);                                                                                      \
        }                                                                                                    \
    } while (false)

/// A child process that lives one life: a function, and then exit(0) with the exit handlers. It is killed at
/// the deadline, and when its parent ends.
class Child
{
public:
    template<typename Life>
    explicit Child(Life life) : m_pid(::fork())
    {
        REQUIRE(m_pid >= 0);
        if (m_pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            life();
            std::exit(0);
        }
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool endsWell() const
    {
        int status = 0;
        if (!waitFor([&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; })) {
            std::fprintf(stderr, "hangs\n");
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, &status, 0);
            return false;
        }
        if (status != 0) {
            std::fprintf(stderr, "ended with status %#x\n", static_cast<unsigned>(status));
        }
        return status == 0;
    }

private:
    const pid_t m_pid;
};

#endif
