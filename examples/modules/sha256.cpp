// SPDX-License-Identifier: MIT
// The digest of a stream, here of a temporary file, and of a buffer.
#include <common/self_log.h>
#include <common/sha256.h>

#include <cstdio>
#include <cstring>

eLogLevl gLogLevl = LOG_LEV_ERROR;

int main()
{
    unsigned char ofStream[32];
    unsigned char ofBuffer[32];
    FILE *const file = tmpfile();
    if (file == nullptr || fputs("abc", file) < 0)
        return 1;
    rewind(file);
    if (sha256_stream(file, ofStream) != 0)
        return 1;
    (void)fclose(file); // it was only read
    sha256_buffer("abc", 3, ofBuffer);
    for (const unsigned char byte : ofStream)
        printf("%02x", byte);
    printf("\n");
    return memcmp(ofStream, ofBuffer, sizeof ofBuffer);
}
