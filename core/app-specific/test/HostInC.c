/* A host in plain C: loads the real shared library and walks its C functions. Ends with 0 if all went well.
 */

#include "Lodestone.h"

#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static int g_result = 0;

static void check(int holds, const char* what)
{
    if (!holds) {
        alif_int8_t text[200];
        CLodestone_GetLastErrorString(text, sizeof text);
        printf("failed: %s; the library says \"%s\"\n", what, (const char*)text);
        g_result = 1;
    }
}

static int lastErrorIs(const char* expected)
{
    alif_int8_t text[200];
    return CLodestone_GetLastErrorString(text, sizeof text) == 0 && strcmp((const char*)text, expected) == 0;
}

static alif_int32_t init(alif_int32_t enabled, const char* configStr)
{
    return CLodestone_Lodestone_Init(enabled, (const alif_int8_t*)configStr);
}

static unsigned freePort(void)
{
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    bind(sock, (const struct sockaddr*)&address, length);
    getsockname(sock, (struct sockaddr*)&address, &length);
    close(sock);
    return ntohs(address.sin_port);
}

int main(void)
{
    AlgoVersion version = {9, 9, 9};
    float samples[64] = {1.0F, 2.0F};
    AlgoMeasBuffer frame[2] = {{0}, {0}};
    char config[64];

    check(lastErrorIs(""), "no text before the first failure");
    check(Lodestone_QueryVersion(&version) == 0, "the version is there");
    check(version.major == 0 && version.minor == 2 && version.patch == 4, "the version is 0.2.4");
    check(CLodestone_Lodestone_QueryVersion(NULL) == 1, "a null version is refused");
    check(lastErrorIs("Version struct was a NULL pointer."), "its text");
    check(init(1, "0,999,1,1,20:1,n") == 1, "a bad string is refused");
    check(lastErrorIs("Value of port exceeds boundary (1000)"), "its text");

    frame[0].buffer = samples;
    frame[0].sizeTotal = sizeof samples;
    frame[0].channelID = 1;
    frame[1].channelID = 2;
    check(CLodestone_Lodestone_Apply(frame, 2, 1) == 0, "constant buffers before the start");
    snprintf(config, sizeof config, "0,%u,1,1,20:1,o:2,n", freePort());
    check(init(1, config) == 0, "a good string is accepted");
    check(CLodestone_Lodestone_Apply(frame, 2, 0) == 0, "a frame");
    check(init(0, NULL) == 0, "disabling needs no string");
    check(CLodestone_Lodestone_Apply(frame, 2, 0) == 0, "a frame without a stream");
    check(init(1, config) == 0, "the port is free again"); /* left running: the exit handlers stop it */
    return g_result;
}
