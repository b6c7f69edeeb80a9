// SPDX-License-Identifier: MIT
// Sends heartbeats to a watchdog, which is this process itself in the example.
#include <common/self_dog.h>
#include <common/self_log.h>

#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_WARN;

int main()
{
    static tFeddogCfg cfg = {0, 100000, "gnssd", "self_dog.sock"}; // ten a second
    sockaddr_un address = {};
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);

    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, cfg.txFeddogHtDmNme);
    unlink(address.sun_path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(fd, 1) != 0)
        return 1;
    if (self_feddog_init(&cfg) != SUCCESS_DOG)
        return 1;
    const int daemon = accept(fd, nullptr, nullptr);
    for (int i = 0; i < 3; i++) {
        alignas(tWthdogFed) char bytes[sizeof(tWthdogFed) + 255] = {};
        const auto *beat = reinterpret_cast<const tWthdogFed *>(bytes);
        // A real watchdog expects pieces; locally one write of ten bytes arrives as one.
        if (read(daemon, bytes, sizeof(tWthdogFed) + 5) != 10)
            return 1;
        std::printf("heartbeat: status %d, %.*s\n", beat->status, int{beat->nameLen},
                    bytes + sizeof(tWthdogFed));
    }
    self_feddog_exit();
    close(daemon);
    close(fd);
    return unlink(address.sun_path);
}
