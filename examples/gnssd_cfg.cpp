// SPDX-License-Identifier: MIT
#include "gnssd_cfg.h"

#include <common/xfuncs.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <libconfig.h>

typedef enum _eKeyKind_ {
    KEY_NUMBER, // from min to max
    KEY_TEXT,   // of min to max characters
    KEY_WORD,   // one of words; min and max are not used
    KEY_SPEED,  // of a serial line
} eKeyKind;

typedef struct _tKey_ {
    const char *group;
    const char *name;
    eKeyKind kind;
    int min;
    int max;
    bool bNeeded;
    const char *const *words; // null-terminated
} tKey;

static const char *const gicSources[] = {"file", "serial", "command", nullptr}; // as in eSrcKind
static const char *const gicRecords[] = {"text", "framed", nullptr};

static const tKey gicKeys[] = {
    {"log", "logRunMd", KEY_NUMBER, 0, LOG_RUN_MAX - 1, false, nullptr},
    {"log", "fileMod", KEY_NUMBER, 0, LOG_FILE_MAX - 1, false, nullptr},
    {"log", "logSaveMaxCnt", KEY_NUMBER, 0, INT_MAX, false, nullptr},
    {"log", "stdoutLogSwt", KEY_NUMBER, 0, LOG_SWITCH_MAX - 1, false, nullptr},
    {"log", "fileLogSwt", KEY_NUMBER, 0, LOG_SWITCH_MAX - 1, false, nullptr},
    {"log", "saveLogPath", KEY_TEXT, 1, 218, false, nullptr}, // 254 with date and time
    {"log", "level", KEY_NUMBER, 0, LOG_LEV_MAX, false, nullptr},
    {"server", "dmNme", KEY_TEXT, 1, 107, true, nullptr},
    {"watchdog", "feddogSec", KEY_NUMBER, 0, 86400, false, nullptr},
    {"watchdog", "feddogUSec", KEY_NUMBER, 0, 999999, false, nullptr},
    {"watchdog", "feddogNme", KEY_TEXT, 1, 62, false, nullptr},
    {"watchdog", "txFeddogHtDmNme", KEY_TEXT, 1, 107, true, nullptr},
    {"gnss", "source", KEY_WORD, 0, 0, false, gicSources},
    {"gnss", "path", KEY_TEXT, 1, sizeof tGnssdCfg::path - 1, false, nullptr},
    {"gnss", "baudRate", KEY_SPEED, 0, 0, false, nullptr},
    {"gnss", "rate", KEY_NUMBER, 0, 1000000, false, nullptr},
    {"gnss", "records", KEY_WORD, 0, 0, false, gicRecords},
};
static constexpr int gicKeyCnt = sizeof gicKeys / sizeof gicKeys[0];

static const char *gipFile;
static int giMistakes;

// Begins an error line; the caller ends it.
static void _blame(const config_setting_t *aipcAt, const char *aicpcGroup, const char *aicpcKey)
{
    const char *const file = config_setting_source_file(aipcAt); // an included one, perhaps
    fprintf(stderr, "%s:%u: %s%s%s: ", file != nullptr ? file : gipFile,
            config_setting_source_line(aipcAt), aicpcGroup, *aicpcKey != '\0' ? "." : "", aicpcKey);
    giMistakes++;
}

// --- One key ------------------------------------------------------------------------------------

// The index of the word, or -1 if it is not in the list.
static int _word_index(const char *const *aicpcWords, const char *aicpcWord)
{
    for (int i = 0; aicpcWords[i] != nullptr; i++) {
        if (strcmp(aicpcWords[i], aicpcWord) == 0)
            return i;
    }
    return -1;
}

static bool _is_allowed(const tKey *aipcKey, const config_setting_t *aipcValue)
{
    const int type = config_setting_type(aipcValue);
    if (aipcKey->kind == KEY_TEXT || aipcKey->kind == KEY_WORD) {
        if (type != CONFIG_TYPE_STRING)
            return false;
        const char *const text = config_setting_get_string(aipcValue);
        if (aipcKey->kind == KEY_WORD)
            return _word_index(aipcKey->words, text) >= 0;
        const size_t len = strlen(text);
        return len >= static_cast<size_t>(aipcKey->min) && len <= static_cast<size_t>(aipcKey->max);
    }
    if (type != CONFIG_TYPE_INT && type != CONFIG_TYPE_INT64)
        return false;
    const long long number = config_setting_get_int64(aipcValue);
    if (aipcKey->kind == KEY_NUMBER)
        return number >= aipcKey->min && number <= aipcKey->max;
    return number > 0 && number <= INT_MAX &&
           tty_get_baudrate(static_cast<int>(number)) != static_cast<speed_t>(-1);
}

static void _say_allowed(const tKey *aipcKey)
{
    fprintf(stderr, "allowed: ");
    if (aipcKey->kind == KEY_NUMBER)
        fprintf(stderr, "a whole number from %d to %d", aipcKey->min, aipcKey->max);
    else if (aipcKey->kind == KEY_TEXT)
        fprintf(stderr, "a text of %d to %d characters", aipcKey->min, aipcKey->max);
    else if (aipcKey->kind == KEY_SPEED)
        fprintf(stderr, "a speed of serial lines, for example 9600 or 115200");
    else
        for (int i = 0; aipcKey->words[i] != nullptr; i++)
            fprintf(stderr, "%s\"%s\"",
                    i == 0                             ? ""
                    : aipcKey->words[i + 1] == nullptr ? " or "
                                                       : ", ",
                    aipcKey->words[i]);
    fputc('\n', stderr);
}

// --- The file -----------------------------------------------------------------------------------

static void _check_setting(const config_setting_t *aipcGroup, const config_setting_t *aipcValue)
{
    const char *const group = config_setting_name(aipcGroup);
    const char *const name = config_setting_name(aipcValue);
    for (int i = 0; i < gicKeyCnt; i++) {
        if (strcmp(gicKeys[i].group, group) != 0 || strcmp(gicKeys[i].name, name) != 0)
            continue;
        if (!_is_allowed(&gicKeys[i], aipcValue)) {
            _blame(aipcValue, group, name);
            _say_allowed(&gicKeys[i]);
        }
        return;
    }
    _blame(aipcValue, group, name);
    fprintf(stderr, "unknown, allowed:");
    for (int i = 0; i < gicKeyCnt; i++) {
        if (strcmp(gicKeys[i].group, group) == 0)
            fprintf(stderr, " %s", gicKeys[i].name);
    }
    fputc('\n', stderr);
}

// The first key of a group identifies the group. Returns false if there is no such group.
static bool _is_group(const char *aicpcName)
{
    for (int i = 0; i < gicKeyCnt; i++) {
        if (strcmp(gicKeys[i].group, aicpcName) == 0)
            return true;
    }
    return false;
}

static void _check_groups(const config_setting_t *aipcRoot)
{
    for (int i = 0; i < config_setting_length(aipcRoot); i++) {
        const config_setting_t *const group =
            config_setting_get_elem(aipcRoot, static_cast<unsigned>(i));
        const char *const name = config_setting_name(group);
        if (!_is_group(name) || config_setting_is_group(group) != CONFIG_TRUE) {
            _blame(group, name, "");
            fprintf(stderr, "allowed: the groups log, server, watchdog and gnss\n");
            continue;
        }
        for (int k = 0; k < config_setting_length(group); k++)
            _check_setting(group, config_setting_get_elem(group, static_cast<unsigned>(k)));
    }
}

// The check of a group's first key reports a missing group.
static void _check_missing(const config_setting_t *aipcRoot)
{
    const char *last = "";
    for (int i = 0; i < gicKeyCnt; i++) {
        const tKey *const key = &gicKeys[i];
        const config_setting_t *const group = config_setting_get_member(aipcRoot, key->group);
        if (group == nullptr && strcmp(last, key->group) != 0) {
            _blame(aipcRoot, key->group, "");
            fprintf(stderr, "this group is missing\n");
        } else if (group != nullptr && key->bNeeded &&
                   config_setting_get_member(group, key->name) == nullptr) {
            _blame(group, key->group, key->name);
            fprintf(stderr, "this key is missing, ");
            _say_allowed(key);
        }
        last = key->group;
    }
}

static void _load_gnss(tGnssdCfg *aopCfg, const config_t *aipcCfg)
{
    const char *source = gicSources[SRC_FILE];
    const char *records = gicRecords[0];
    const char *path = "-";
    const config_setting_t *const group = config_lookup(aipcCfg, "gnss");
    (void)config_setting_lookup_string(group, "source", &source);
    (void)config_setting_lookup_string(group, "records", &records);
    (void)config_setting_lookup_string(group, "path", &path);
    (void)config_setting_lookup_int(group, "baudRate", &aopCfg->baudRate);
    (void)config_setting_lookup_int(group, "rate", &aopCfg->rate);
    (void)config_lookup_int(aipcCfg, "log.level", &aopCfg->level);
    aopCfg->kind = static_cast<eSrcKind>(_word_index(gicSources, source));
    aopCfg->bFramed = _word_index(gicRecords, records) == 1;
    snprintf(aopCfg->path, sizeof aopCfg->path, "%s", path);
}

static void _load(tGnssdCfg *aopCfg, const config_t *aipcCfg)
{
    const config_setting_t *const root = config_root_setting(aipcCfg);
    _check_groups(root);
    _check_missing(root);
    if (giMistakes > 0 || load_log_cfg(&aopCfg->log, "log", aipcCfg) != 0 ||
        load_dmn_serv_cfg(&aopCfg->server, "server", aipcCfg) != 0 ||
        load_feeddog_cfg(&aopCfg->watchdog, "watchdog", aipcCfg) != 0)
        return; // the loaders fail for a missing group only, which is reported above
    _load_gnss(aopCfg, aipcCfg);
    if (aopCfg->watchdog.feddogSec == 0 && aopCfg->watchdog.feddogUSec == 0) {
        _blame(config_lookup(aipcCfg, "watchdog"), "watchdog", "feddogUSec");
        fprintf(stderr, "allowed with feddogSec = 0: a whole number from 1 to 999999\n");
    }
}

int gnssd_cfg_load(tGnssdCfg *aopCfg, const char *aicpcPath)
{
    *aopCfg = {};
    aopCfg->log.stdoutLogSwt = LOG_SWITCH_ON;
    aopCfg->watchdog.feddogSec = 1;
    snprintf(aopCfg->watchdog.feddogNme, sizeof aopCfg->watchdog.feddogNme, "gnssd");
    aopCfg->level = LOG_LEV_WARN;
    aopCfg->baudRate = 9600;
    gipFile = aicpcPath;
    giMistakes = 0;

    config_t cfg;
    config_init(&cfg);
    errno = 0;
    if (config_read_file(&cfg, aicpcPath) == CONFIG_TRUE) {
        _load(aopCfg, &cfg);
    } else if (config_error_type(&cfg) == CONFIG_ERR_FILE_IO) {
        fprintf(stderr, "%s: %s\n", aicpcPath, errno != 0 ? strerror(errno) : "cannot be read");
        giMistakes++;
    } else {
        const char *const file = config_error_file(&cfg);
        fprintf(stderr, "%s:%d: %s\n", file != nullptr ? file : aicpcPath, config_error_line(&cfg),
                config_error_text(&cfg));
        giMistakes++;
    }
    config_destroy(&cfg);
    return giMistakes == 0 ? 0 : -ERR_LIBCFG_READ_FILE_DMN;
}
