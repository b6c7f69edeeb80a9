/* SPDX-License-Identifier: MIT */
/* Checks a sentence by its check byte, and looks up a line speed. */
#include <common/self_log.h>
#include <common/xfuncs.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

int main(void)
{
    static const char sentence[] = "$GPGSA,A,3,04,05,09,12,17,20,24,25,28,,,,1.6,0.9,1.3*3A";
    const char *const star = strchr(sentence, '*');
    const unsigned sum = (unsigned char)xorCheckSum(sentence + 1, star - 1);

    printf("computed %02X, given %s\n", sum, star + 1);
    printf("115200 is %s\n", tty_get_baudrate(115200) == B115200 ? "B115200" : "unknown");
    printf("12345 is %s\n", tty_get_baudrate(12345) == (speed_t)-1 ? "unknown" : "a speed");

    char *const name = gen_random_string(8); /* not for secrets */
    int *const zeroed = xCalloc(16, sizeof(int));
    if (name == NULL || zeroed == NULL)
        return 1; /* the reason is in the log already */
    printf("a name of %zu characters, 16 numbers of %d\n", strlen(name), zeroed[15]);
    free(zeroed);
    free(name);
    return 0;
}
