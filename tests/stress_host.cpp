// SPDX-License-Identifier: MIT
// The host of test_stress.py: a server and the log service, driven by lines on standard input.
// stress_host SOCKET|- RUNMODE NAMING WRITES CONSOLE FILE PATH; what it reports goes to stderr.
#include <common/dmn_serv.h>
#include <common/self_log.h>
#include <cstdio>
#include <cstdlib>

eLogLevl gLogLevl = LOG_LEV_ERROR;

int main(int, char **argv)
{
    const auto arg = [=](int at) { return static_cast<unsigned>(atoi(argv[at])); };
    tLogCfg log = {eLogRunMod(arg(2)), eLogFileMod(arg(3)), arg(4),
                   eLogSwitch(arg(5)), eLogSwitch(arg(6)),  ""};
    tDmnServCfg serv = {};
    snprintf(log.saveLogPath, sizeof log.saveLogPath, "%s", argv[7]);
    snprintf(serv.dmNme, sizeof serv.dmNme, "%s", argv[1]);
    log_system_init(&log);
    if (serv.dmNme[0] != '-')
        dmn_server_init(&serv);

    char kind = 0;
    char message[300];
    int count = 0;
    for (int number = 0; scanf(" %c%d", &kind, &count) == 2; dprintf(2, "done\n")) {
        for (; count > 0; --count) {
            if (kind == 'b') {
                snprintf(message, sizeof message, "<%08d%0246d>", number, 0);
                dmn_serv_tx_clit_msg(message, 256);
            } else {
                log_msg(LOG_LEV_OFF, "host", "f", 1, "<%08d %080d>\n", number, 0);
                dprintf(2, "%d\n", number); // the call has returned: the line has been logged
            }
            ++number;
        }
    }
    dmn_server_exit();
    log_system_exit();
}
