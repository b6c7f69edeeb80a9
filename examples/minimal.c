/* SPDX-License-Identifier: MIT */
/* The smallest host: says "tick" to every client, once a second, until SIGINT or SIGTERM. */
#include <common/dmn_serv.h>
#include <common/self_log.h>

#include <pthread.h>
#include <signal.h>
#include <stdio.h>

eLogLevl gLogLevl = LOG_LEV_WARN;
static const eLogLevl gicDbLev = LOG_LEV_LOUD;

int main(int argc, char **argv)
{
    static tLogCfg log = {.stdoutLogSwt = LOG_SWITCH_ON};
    static tDmnServCfg server = {"/tmp/minimal.sock"};
    const struct timespec second = {.tv_sec = 1};
    char tick[] = "tick\n";
    sigset_t stop;

    if (argc > 1)
        snprintf(server.dmNme, sizeof(server.dmNme), "%s", argv[1]);
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL); /* the threads made below inherit it */

    if (log_system_init(&log) != 0 || dmn_server_init(&server) != 0)
        return 1;
    LOG_MSG(LOG_LEV_RUN, "serving %s------\n", server.dmNme);
    while (sigtimedwait(&stop, NULL, &second) == -1)
        dmn_serv_tx_clit_msg(tick, sizeof(tick) - 1);
    dmn_server_exit();
    log_system_exit();
    return 0;
}
