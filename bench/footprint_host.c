/* SPDX-License-Identifier: MIT */
/* A host with everything running: log service with its writer thread and a file, server with one
   client, watchdog client with a watchdog that listens. It leaves the memory maps from before the
   start and from after some use in the files "before" and "after". */
#include <common/dmn_serv.h>
#include <common/self_dog.h>
#include <common/self_log.h>

#include <fcntl.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_LOUD;
static const eLogLevl gicDbLev = LOG_LEV_LOUD;

/* Through a small buffer on the stack: the measurement is to need no memory of its own. */
static bool _keep_maps(const char *aicpcPath)
{
    char part[1024];
    ssize_t got = 0, put = 0;
    const int from = open("/proc/self/smaps", O_RDONLY);
    const int to = open(aicpcPath, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    while (put == got && (got = read(from, part, sizeof part)) > 0)
        put = write(to, part, (size_t)got);
    close(from);
    close(to);
    return got == 0;
}

/* Connects within two seconds, or listens; -1 when that fails. */
static int _unix_socket(const char *aicpcPath, bool abListens)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const struct sockaddr *pName = (const struct sockaddr *)&address;
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    strncpy(address.sun_path, aicpcPath, sizeof address.sun_path - 1);
    if (abListens)
        return bind(fd, pName, sizeof address) == 0 && listen(fd, 1) == 0 ? fd : -1;
    for (int i = 0; i < 100; i++) {
        if (connect(fd, pName, sizeof address) == 0)
            return fd;
        usleep(20000);
    }
    return -1;
}

int main(void)
{
    static const tLogCfg log = {
        .logRunMd = LOG_RUN_NEW_PTHREAD, .fileLogSwt = LOG_SWITCH_ON, .saveLogPath = "log"};
    static tDmnServCfg server = {"server"};
    static tFeddogCfg dog = {1, 0, "footprint", "watchdog"};
    const int watchdog = _unix_socket(dog.txFeddogHtDmNme, true);
    if (watchdog == -1 || !_keep_maps("before"))
        return 1;

    if (log_system_init(&log) != 0 || dmn_server_init(&server) != 0 || self_feddog_init(&dog) != 0)
        return 2;
    const int client = _unix_socket(server.dmNme, false);
    const int heartbeats = accept(watchdog, NULL, NULL);
    char text[64];
    if (client == -1 || read(heartbeats, text, sizeof text) <= 0)
        return 3;
    for (int i = 0; i < 100; i++) {
        LOG_MSG(LOG_LEV_INFO, "line %d\n", i);
        dmn_serv_tx_clit_msg(text, 16);
        if (read(client, text, sizeof text) <= 0)
            return 4;
    }
    if (!_keep_maps("after"))
        return 5;
    self_feddog_exit();
    dmn_server_exit();
    return log_system_exit();
}
