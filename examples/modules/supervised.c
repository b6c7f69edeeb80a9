/* SPDX-License-Identifier: MIT */
/* A daemon with all that it needs: configuration file, log, server, heartbeats, a clean stop. */
#include <common/dmn_serv.h>
#include <common/self_dog.h>
#include <common/self_log.h>

#include <libconfig.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>

eLogLevl gLogLevl = LOG_LEV_RUN;
static const eLogLevl gicDbLev = LOG_LEV_LOUD;

/* The services keep the records by pointer, so these live as long as the program. They contain the
 * defaults for keys that the file does not have. */
static tLogCfg giLogCfg = {.stdoutLogSwt = LOG_SWITCH_ON};
static tDmnServCfg giServCfg = {"/run/supervised.sock"};
static tFeddogCfg giDogCfg = {1, 0, "supervised", "/run/watchdog.sock"};
static int giTicks; /* 0: until a signal stops it */

static int load_cfg(const char *path)
{
    config_t cfg;
    int result = -1;

    config_init(&cfg);
    if (config_read_file(&cfg, path) != CONFIG_TRUE) {
        LOG_MSG(LOG_LEV_ERROR, "%s line %d: %s!!!!\n", path, config_error_line(&cfg),
                config_error_text(&cfg));
    } else if ((result = load_log_cfg(&giLogCfg, "log", &cfg)) == 0 &&
               (result = load_dmn_serv_cfg(&giServCfg, "server", &cfg)) == 0 &&
               (result = load_feeddog_cfg(&giDogCfg, "watchdog", &cfg)) == 0) {
        config_lookup_int(&cfg, "work.ticks", &giTicks);
    }
    config_destroy(&cfg);
    return result;
}

static void work(const sigset_t *stop)
{
    const struct timespec period = {.tv_nsec = 200000000};

    for (int tick = 1; giTicks == 0 || tick <= giTicks; tick++) {
        char text[32];
        if (sigtimedwait(stop, NULL, &period) != -1)
            return;
        dmn_serv_tx_clit_msg(text, snprintf(text, sizeof(text), "tick %d\n", tick));
        LOG_MSG(LOG_LEV_INFO, "sent %s", text);
    }
}

int main(int argc, char **argv)
{
    sigset_t stop;
    int failed;

    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL); /* before any thread starts: threads inherit it */

    if (load_cfg(argc > 1 ? argv[1] : "supervised.conf") != 0)
        return 1;
    failed = log_system_init(&giLogCfg) != 0 || dmn_server_init(&giServCfg) != 0 ||
             self_feddog_init(&giDogCfg) != 0;
    LOG_MSG(LOG_LEV_RUN, "%s------\n", failed ? "cannot start" : "started");
    if (!failed)
        work(&stop);
    self_feddog_exit(); /* the exit calls are harmless for what was not started */
    dmn_server_exit();
    LOG_MSG(LOG_LEV_RUN, "ends------\n");
    log_system_exit();
    return failed;
}
