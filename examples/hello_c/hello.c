/* A host in C99: hello_c [PORT [FRAMES]]. Taps a few signals at 20 Hz, five seconds by default. */
#include "Lodestone.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static int fail(const char* what)
{
    char reason[256] = "";
    CLodestone_GetLastErrorString((alif_int8_t*)reason, sizeof reason);
    fprintf(stderr, "%s: %s\n", what, reason);
    return EXIT_FAILURE;
}

int main(int argc, char** argv)
{
    const char* const port = argc > 1 ? argv[1] : "5000";
    const int frames = argc > 2 ? atoi(argv[2]) : 100;
    AlgoVersion version;
    if (CLodestone_Lodestone_QueryVersion(&version) != 0)
        return fail("version");
    printf("Lodestone %u.%u.%u on port %s\n", version.major, version.minor, version.patch, port);

    /* Channel 100 goes out whole, 110 in 4 parts, 120 once per client. */
    char config[128];
    snprintf(config, sizeof config, "0,%s,4,10,20:100,n:110,s:120,o", port);
    if (CLodestone_Lodestone_Init(1, (const alif_int8_t*)config) != 0)
        return fail("init");

    static const char about[] = "hello from C";
    AlgoMeasBuffer constant = {about, sizeof about, 0, 120};
    if (CLodestone_Lodestone_Apply(&constant, 1, 1) != 0)
        return fail("constant buffer");

    for (int frame = 0; frame < frames; ++frame) {
        static float samples[1000];
        for (int i = 0; i < 1000; ++i)
            samples[i] = (float)((frame + i) % 50);
        AlgoMeasBuffer buffers[] = {{&frame, sizeof frame, 0, 100}, {samples, sizeof samples, 0, 110}};
        if (CLodestone_Lodestone_Apply(buffers, 2, 0) != 0)
            return fail("frame");
        const struct timespec period = {0, 50 * 1000 * 1000};
        nanosleep(&period, NULL);
    }
    return CLodestone_Lodestone_Init(0, (const alif_int8_t*)"") == 0 ? EXIT_SUCCESS : fail("stop");
}
