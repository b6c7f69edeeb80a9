/* SPDX-License-Identifier: MIT */
/* A digest in one call, and the same one in pieces. */
#include <common/md5.h>
#include <common/self_log.h>

#include <stdio.h>
#include <string.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

int main(void)
{
    static const char message[] = "message digest";
    unsigned char once[16], pieces[16];
    struct md5_ctx ctx;
    (void)md5_buffer(message, strlen(message), once); /* returns where the digest is */
    md5_init_ctx(&ctx);
    md5_process_bytes(message, 8, &ctx);
    md5_process_bytes(message + 8, strlen(message) - 8, &ctx);
    (void)md5_finish_ctx(&ctx, pieces);

    for (int i = 0; i < 16; i++)
        printf("%02x", once[i]);
    printf("\n");
    return memcmp(once, pieces, 16);
}
