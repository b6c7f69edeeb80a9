/* SPDX-License-Identifier: MIT */
/* Packs two messages, sends them through a pipe in one write, and separates them again. */
#include <common/buffer.h>
#include <common/self_log.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

/* The length of the message at the front; 0 while it is not whole. */
static int whole_message(const buffer_t *b)
{
    uint32_t len;
    if (b->used < 6)
        return 0;
    memcpy(&len, b->ptr + 2, sizeof len);
    len = TO_DWBE(len);
    return len <= (uint32_t)b->used - 6 ? (int)len + 6 : 0;
}

int main(void)
{
    char hello[] = "hello", unit[] = "unit 7";
    buffer_t *out = buffer_init(0), *in = buffer_init(0);
    int fds[2];
    if (out == NULL || in == NULL || pipe(fds) == -1)
        return 1;
    write_uint16(out, 1);
    write_string(out, hello, sizeof hello - 1);
    write_uint16(out, 2);
    write_string(out, unit, sizeof unit - 1);
    printf("%d bytes packed\n", out->used);
    if (write(fds[1], out->ptr, (size_t)out->used) != out->used)
        return 1;
    (void)close(fds[1]); /* this end of a pipe has nothing left to lose */

    while (read_buffer(fds[0], in) > 0) {
        for (int len; (len = whole_message(in)) > 0; buffer_shift(in, len))
            printf("message %d: %.*s\n", in->ptr[1], len - 6, in->ptr + 6);
    }
    (void)close(fds[0]);
    buffer_free(in);
    buffer_free(out);
    return buffer_memory == 0 ? 0 : 1;
}
