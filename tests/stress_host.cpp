// SPDX-License-Identifier: MIT
// The host of test_stress.py: a server and the log service, driven by lines on standard input.
// stress_host SOCKET|- RUNMODE NAMING WRITES CONSOLE FILE PATH; what it reports goes to stderr.
#include <chrono>
#include <common/dmn_serv.h>
#include <common/self_log.h>
#include <cstdlib>
#include <string>

eLogLevl gLogLevl = LOG_LEV_ERROR;

template <typename tCall> static long long ns_of(tCall call)
{
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::nanoseconds(std::chrono::steady_clock::now() - start).count();
}

static void broadcast(int count, int size)
{
    static int number;
    long long longest = 0;
    while (count-- > 0) {
        char head[16];
        snprintf(head, sizeof head, "<%08d", number++);
        std::string msg = head + std::string(static_cast<size_t>(size) - 10, '.') + ">";
        const long long took = ns_of([&] { dmn_serv_tx_clit_msg(msg.data(), size); });
        longest = took > longest ? took : longest;
    }
    dprintf(2, "longest %lld\n", longest);
}

// A line that is reported has been logged: its call has returned.
static void log_lines(int count)
{
    static int number;
    for (; count > 0; --count, ++number) {
        log_msg(LOG_LEV_OFF, "host", "f", 1, "<%08d %080d>\n", number, 0);
        dprintf(2, "%d\n", number);
    }
}

int main(int, char **argv)
{
    const auto arg = [=](int at) { return static_cast<unsigned>(atoi(argv[at])); };
    tLogCfg log = {eLogRunMod(arg(2)), eLogFileMod(arg(3)), arg(4),
                   eLogSwitch(arg(5)), eLogSwitch(arg(6)),  ""};
    tDmnServCfg serv = {};
    snprintf(log.saveLogPath, sizeof log.saveLogPath, "%s", argv[7]);
    snprintf(serv.dmNme, sizeof serv.dmNme, "%s", argv[1]);
    dprintf(2, "started %d\n", log_system_init(&log));
    if (serv.dmNme[0] != '-')
        dmn_server_init(&serv);
    int count = 0, size = 0;
    for (char line[64]; fgets(line, sizeof line, stdin) != nullptr; dprintf(2, "done\n")) {
        sscanf(line + 1, "%d %d", &count, &size);
        if (line[0] == 'b')
            broadcast(count, size);
        else if (line[0] == 'l')
            log_lines(count);
        else if (log_system_exit() == 0)
            dprintf(2, "started %d\n", log_system_init(&log));
    }
    dprintf(2, "stopped %lld\n", ns_of(dmn_server_exit));
    log_system_exit();
}
