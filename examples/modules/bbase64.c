/* SPDX-License-Identifier: MIT */
/* Bytes to text and back. */
#include <common/bbase64.h>
#include <common/self_log.h>

#include <stdio.h>
#include <string.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

int main(void)
{
    static const unsigned char data[] = {0x00, 0xff, 0x10, 0x80, 0x7f};
    char text[4 * ((sizeof data + 2) / 3) + 1];
    unsigned char back[3 * sizeof text / 4];

    const int len = bbase64_encode(data, sizeof data, text, sizeof text - 1);
    if (len < 0)
        return 1;
    text[len] = '\0';
    printf("%s\n", text);

    const int got = bbase64_decode(text, (size_t)len, back, sizeof back);
    printf("%d bytes, %s\n", got, memcmp(data, back, sizeof data) == 0 ? "the same" : "changed");
    printf("with a line break: %d\n", bbase64_decode("AP8Q\ngH8=", 9, back, sizeof back));
    return got == (int)sizeof data ? 0 : 1;
}
