// SPDX-License-Identifier: MIT
#include "heartbeat.h"
#include "sockfile.h"

#include <common/self_log.h>

#include <cstring>
#include <event2/event.h>
#include <sys/socket.h>

static const eLogLevl gicDbLev = LOG_LEV_LOUD;

static constexpr struct timeval gicPeriod = {1, 0}; // between two looks

static struct event_base *gipBase;
static struct event *gipLookEt;
static tFeddogCfg *gipCfg;
static bool gibTold; // that there is no watchdog

// The connection is the one socket of the loop whose own end has no name and whose other end has
// one: a client's has the server's name, the listening one has no other end.
static int _is_connection(const struct event_base *, const struct event *aipEvent, void *)
{
    struct sockaddr_un addr;
    const int fd = event_get_fd(aipEvent);
    const socklen_t none = sizeof addr.sun_family;
    socklen_t own = sizeof addr;
    socklen_t other = sizeof addr;
    return fd >= 0 && getsockname(fd, reinterpret_cast<struct sockaddr *>(&addr), &own) == 0 &&
           addr.sun_family == AF_UNIX && own == none &&
           getpeername(fd, reinterpret_cast<struct sockaddr *>(&addr), &other) == 0 && other > none;
}

// The library would log every failed try, so it is asked only when somebody is there.
static void _look_cb(int, short, void *)
{
    if (event_base_foreach_event(gipBase, _is_connection, nullptr) != 0)
        return;
    self_feddog_exit(); // what the last connection has left
    const int err = sockfile_probe(gipCfg->txFeddogHtDmNme);
    if (err == 0 && _feed_dog_init(gipBase, gipCfg) == 0) {
        LOG_MSG(LOG_LEV_RUN, "heartbeats go to %s------\n", gipCfg->txFeddogHtDmNme);
        gibTold = false;
    } else if (err != 0 && !gibTold) { // otherwise the library has said why
        LOG_MSG(LOG_LEV_ERROR, "no watchdog at %s yet, msg:%s!!!!\n", gipCfg->txFeddogHtDmNme,
                strerror(err));
        gibTold = true;
    }
}

int heartbeat_start(struct event_base *aipBase, tFeddogCfg *aipCfg)
{
    gipBase = aipBase;
    gipCfg = aipCfg;
    gipLookEt = event_new(aipBase, -1, EV_PERSIST, _look_cb, nullptr);
    if (gipLookEt == nullptr || event_add(gipLookEt, &gicPeriod) == -1) {
        LOG_MSG(LOG_LEV_ERROR, "evtimer_new() err!!!!\n");
        heartbeat_stop();
        return -ERR_EVENT_NEW_DOG;
    }
    _look_cb(-1, 0, nullptr);
    return 0;
}

void heartbeat_stop(void)
{
    self_feddog_exit();
    if (gipLookEt != nullptr)
        event_free(gipLookEt);
    gipLookEt = nullptr;
}
