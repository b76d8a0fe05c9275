/* A host in plain C: loads the real shared library and walks its C functions. Ends with 0 if all went well.
 */

#include "Lodestone.h"

#include <stdio.h>
#include <string.h>

static int g_result = 0;

static void check(int holds, const char* what)
{
    if (!holds) {
        printf("failed: %s\n", what);
        g_result = 1;
    }
}

static int lastErrorIs(const char* expected)
{
    alif_int8_t text[200];
    return CLodestone_GetLastErrorString(text, sizeof text) == 0 && strcmp((const char*)text, expected) == 0;
}

int main(void)
{
    AlgoVersion version = {9, 9, 9};
    const float samples[64] = {1.0F, 2.0F};
    AlgoMeasBuffer frame[2] = {{samples, sizeof samples, 0, 1}, {NULL, 0, 0, 2}};
    /* 131072 has no low bits, so the kernel chooses the port. */
    const alif_int8_t* const config = (const alif_int8_t*)"0,131072,1,1,20:1,o:2,n";

    check(lastErrorIs(""), "no text before the first failure");
    check(Lodestone_QueryVersion(&version) == 0, "the version is there");
    check(version.major == 0 && version.minor == 2 && version.patch == 4, "the version is 0.2.4");
    check(CLodestone_Lodestone_QueryVersion(NULL) == 1, "a null version is refused");
    check(lastErrorIs("Version struct was a NULL pointer."), "its text");

    check(CLodestone_Lodestone_Apply(frame, 2, 1) == 0, "constant buffers before the start");
    check(CLodestone_Lodestone_Init(1, config) == 0, "a good string is accepted");
    check(CLodestone_Lodestone_Apply(frame, 2, 0) == 0, "a frame");
    check(CLodestone_Lodestone_Init(0, NULL) == 0, "disabling needs no string");
    check(CLodestone_Lodestone_Init(1, config) == 0, "a second start"); /* the exit handlers stop it */
    return g_result;
}
