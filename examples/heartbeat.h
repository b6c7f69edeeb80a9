/* SPDX-License-Identifier: MIT */
/*
 * heartbeat: heartbeats that stop when the work stops, and that come back when the watchdog does.
 *
 * The library's watchdog client runs on the event loop that does the work, so a loop that hangs
 * sends no heartbeat. The library connects only once. This module checks the connection every
 * second and connects again if it is gone. If the watchdog hangs and refuses the connection, the
 * attempts become rarer, down to one every 16 seconds. A failure is logged once.
 */
#ifndef KELVARA_EXAMPLES_HEARTBEAT_H
#define KELVARA_EXAMPLES_HEARTBEAT_H

#include <common/self_dog.h>

/* Connects to the watchdog now, or as soon as it is available. The base and the record belong to
 * the caller and must stay valid until heartbeat_stop(). Returns 0, or -13 (ERR_EVENT_NEW_DOG),
 * logged. */
int heartbeat_start(struct event_base *aipBase, tFeddogCfg *aipCfg);

/* Ends the heartbeats; harmless without a start. Call it before the base is freed, and not from
 * a callback of the heartbeats. */
void heartbeat_stop(void);

#endif
