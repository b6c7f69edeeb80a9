/* SPDX-License-Identifier: MIT */
/* Logs one line of each level through the writer thread into files, and shows the first of them. */
#include <common/self_log.h>

#include <stdio.h>

eLogLevl gLogLevl = LOG_LEV_MAX;
static const eLogLevl gicDbLev = LOG_LEV_LOUD;

int main(void)
{
    tLogCfg cfg = {.logRunMd = LOG_RUN_NEW_PTHREAD,
                   .fileMod = LOG_FILE_TWO,
                   .logSaveMaxCnt = 1000,
                   .fileLogSwt = LOG_SWITCH_ON,
                   .saveLogPath = "self_log"};
    char line[1024];

    if (log_system_init(&cfg) != LOG_SUCCESS) {
        log_system_exit();
        return 1;
    }
    LOG_MSG(LOG_LEV_OFF, "printed whatever the threshold------\n");
    LOG_MSG(LOG_LEV_ERROR, "open(%s) err, msg:%s!!!!\n", "/dev/gnss0", "No such device");
    LOG_MSG(LOG_LEV_RUN, "the receiver answers\n");
    LOG_MSG(LOG_LEV_WARN, "%d of %d satellites\n", 3, 12);
    LOG_MSG(LOG_LEV_TRACE, "%s", "not shown: a trace line names the function");
    LOG_MSG(LOG_LEV_INFO, "fix in %.1f s\n", 31.5);
    LOG_MSG(LOG_LEV_LOUD, "17 bytes read\n");
    set_global_log_level(LOG_LEV_WARN);
    LOG_MSG(LOG_LEV_INFO, "above the threshold: not logged\n");
    log_system_exit();

    FILE *log = fopen("self_log-00.log", "r");
    while (log != NULL && fgets(line, sizeof(line), log) != NULL)
        fputs(line, stdout);
    return log != NULL ? fclose(log) : 1;
}
