/* SPDX-License-Identifier: MIT */
/*
 * gnssd_cfg: the configuration file of gnssd. The library's loaders keep what they had for a key
 * that is missing or wrong; so every key is looked at here before they see the file.
 */
#ifndef KELVARA_EXAMPLES_GNSSD_CFG_H
#define KELVARA_EXAMPLES_GNSSD_CFG_H

#include "source.h"

#include <common/dmn_serv.h>
#include <common/self_dog.h>
#include <common/self_log.h>

typedef struct _tGnssdCfg_ {
    tLogCfg log;
    tDmnServCfg server;
    tFeddogCfg watchdog;
    int level; /* the log threshold */
    eSrcKind kind;
    char path[512];
    int baudRate;
    bool bFramed;
    int rate; /* sentences a second; 0: as fast as they come */
} tGnssdCfg;

/* Loads the file. What it does not say gets its start value. Returns 0, or -14
 * (ERR_LIBCFG_READ_FILE_DMN) after a line on standard error for each mistake: file, line, key, and
 * what is allowed; the record may then be filled in part. */
int gnssd_cfg_load(tGnssdCfg *aopCfg, const char *aicpcPath);

#endif
