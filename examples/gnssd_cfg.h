/* SPDX-License-Identifier: MIT */
/*
 * gnssd_cfg: the configuration file of gnssd. The library's loaders silently skip a key that is
 * missing or wrong, so this module checks every key before it calls them.
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

/* Loads the file. Missing keys get their default. Returns 0, or -14 (ERR_LIBCFG_READ_FILE_DMN)
 * after a line on standard error for each mistake: file, line, key, and the allowed values; the
 * record may then be partly filled. */
int gnssd_cfg_load(tGnssdCfg *aopCfg, const char *aicpcPath);

#endif
