/* SPDX-License-Identifier: MIT */
/*
 * heartbeat: heartbeats that stop when the work stops, and that come back when the watchdog does.
 *
 * The library's watchdog client runs on the event loop that does the work: a loop that hangs, for
 * whatever reason, sends no heartbeat. The library connects once; so look every second whether the
 * connection is there, and make it again if not. A watchdog that hangs, so that it refuses the
 * connection, is tried less and less often, down to every 16 seconds. A failure is logged once.
 */
#ifndef KELVARA_EXAMPLES_HEARTBEAT_H
#define KELVARA_EXAMPLES_HEARTBEAT_H

#include <common/self_dog.h>

/* Connects to the watchdog now, or as soon as it is there. The base and the record belong to the
 * caller until heartbeat_stop(). Returns 0, or -13 (ERR_EVENT_NEW_DOG), logged. */
int heartbeat_start(struct event_base *aipBase, tFeddogCfg *aipCfg);

/* Ends the heartbeats; harmless without a start. Before the base is freed, and not from within. */
void heartbeat_stop(void);

#endif
