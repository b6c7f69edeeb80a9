// SPDX-License-Identifier: MIT
#include "heartbeat.h"
#include "sockfile.h"

#include <common/self_log.h>

#include <cstring>
#include <event2/event.h>
#include <sys/socket.h>

static const eLogLevl gicDbLev = LOG_LEV_LOUD;

static constexpr time_t gicPeriodSec = 1;   // between two checks
static constexpr time_t gicLongestSec = 16; // the limit of its doubling while the watchdog hangs

static struct event_base *gipBase;
static struct event *gipLookEt;
static tFeddogCfg *gipCfg;
static time_t giPeriodSec = gicPeriodSec;
static bool gibTold; // a missing watchdog has been reported

// Finds the connection: it is the only socket of the loop whose own end has no name and whose peer
// has one. A client's connection has the server's name, and the listening socket has no peer.
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

// A watchdog that hangs, or a socket of another kind, refuses the connection. The library logs each
// failure; this code lets only the first one through. Only this thread logs.
static bool _connect(void)
{
    const eLogLevl was = gLogLevl;
    if (gibTold)
        gLogLevl = LOG_LEV_OFF;
    const bool bDone = _feed_dog_init(gipBase, gipCfg) == 0;
    gLogLevl = was;
    return bDone;
}

// Returns the seconds until the next check.
static time_t _look(void)
{
    const char *const path = gipCfg->txFeddogHtDmNme;
    if (event_base_foreach_event(gipBase, _is_connection, nullptr) != 0)
        return gicPeriodSec;
    self_feddog_exit(); // releases the last connection
    const int err = sockfile_probe(path);
    if (err == 0 && _connect()) {
        LOG_MSG(LOG_LEV_RUN, "heartbeats go to %s------\n", path);
        gibTold = false;
        return gicPeriodSec;
    }
    if (err != 0 && !gibTold)
        LOG_MSG(LOG_LEV_ERROR, "no watchdog at %s yet, msg:%s!!!!\n", path, strerror(err));
    gibTold = true;
    if (err != 0)
        return gicPeriodSec;
    return giPeriodSec < gicLongestSec ? giPeriodSec * 2 : gicLongestSec;
}

static void _look_cb(int, short, void *)
{
    giPeriodSec = _look();
    const struct timeval wait = {giPeriodSec, 0};
    (void)event_add(gipLookEt, &wait); // fails without memory: then the last period stays
}

int heartbeat_start(struct event_base *aipBase, tFeddogCfg *aipCfg)
{
    gipBase = aipBase;
    gipCfg = aipCfg;
    gipLookEt = event_new(aipBase, -1, EV_PERSIST, _look_cb, nullptr);
    const struct timeval wait = {giPeriodSec, 0};
    if (gipLookEt == nullptr || event_add(gipLookEt, &wait) == -1) {
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
