/* SPDX-License-Identifier: MIT */
/* A server and, only in this example, its client in the same process. */
#include <common/dmn_serv.h>
#include <common/self_log.h>

#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_WARN;

/* The server makes its socket on its own thread, so the first tries may come too early. */
static int connect_to(const char *path)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);

    snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);
    for (int tries = 0; tries < 250; tries++) {
        if (connect(fd, (struct sockaddr *)&address, sizeof(address)) == 0)
            return fd;
        poll(NULL, 0, 20);
    }
    return -1;
}

int main(void)
{
    static tDmnServCfg cfg = {"dmn_serv.sock"}; /* outlives the server */
    char fix[] = "47.1201 5.4612\n", received[64];

    if (dmn_server_init(&cfg) != SUCCESS_DMN)
        return 1;
    int fd = connect_to(cfg.dmNme);
    struct pollfd client = {.fd = fd, .events = POLLIN};
    if (fd == -1)
        return 1;
    /* A client that is not yet in the server's list gets nothing: broadcast until a message
     * arrives. */
    do
        dmn_serv_tx_clit_msg(fix, (int)strlen(fix));
    while (poll(&client, 1, 20) == 0);
    ssize_t got = read(fd, received, strlen(fix));
    if (got > 0)
        printf("received: %.*s", (int)got, received);
    dmn_server_exit();
    while (got > 0) /* the remaining broadcasts, then the end of the stream */
        got = read(fd, received, sizeof(received));
    printf("end of stream: %zd\n", got);
    close(fd);
    return unlink(cfg.dmNme); /* the server leaves the file to the next start */
}
