/* SPDX-License-Identifier: MIT */
/* Reads from a command that never ends by itself, and ends it. pclose2() signals the process after
 * the shell, so the command runs in a child of the shell, which first prints both. */
#include <common/popen2.h>
#include <common/self_log.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

int main(void)
{
    char command[] = "(echo $$; sh -c 'echo $PPID'; while :; do echo tick; sleep 1; done); exit $?";
    char type[] = "r", line[64];
    long number[2];
    FILE *from = popen2(command, type);

    if (from == NULL)
        return 1;
    for (int i = 0; i < 2; i++) {
        if (fgets(line, sizeof(line), from) == NULL)
            return 1;
        number[i] = strtol(line, NULL, 10);
    }
    if (fgets(line, sizeof(line), from) != NULL)
        printf("%s", line);

    if (number[1] == number[0] + 1) {
        pclose2(from);
    } else { /* another process has the next number: do not signal it */
        kill((pid_t)number[1], SIGTERM);
        fclose(from);
    }
    /* The host must reap the shell. */
    return waitpid((pid_t)number[0], NULL, 0) == (pid_t)number[0] ? 0 : 1;
}
