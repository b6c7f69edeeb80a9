// SPDX-License-Identifier: MIT
#include <common/dmn_serv.h>
#include <common/self_dog.h>

#include "support.h"

#include <libconfig.h>

// Runs a loader on a preset record. Returns its result and the contents of the record.
static Message log_loaded(const config_t *cfg)
{
    tLogCfg rec = {LOG_RUN_MAX, LOG_FILE_MAX, 77, LOG_SWITCH_MAX, LOG_SWITCH_MAX, "kept"};
    const int ret = load_log_cfg(&rec, "a.b", cfg);
    return Message() << ret << " " << rec.logRunMd << " " << rec.fileMod << " " << rec.logSaveMaxCnt
                     << " " << rec.stdoutLogSwt << " " << rec.fileLogSwt << " " << rec.saveLogPath;
}
static Message serv_loaded(const config_t *cfg)
{
    tDmnServCfg rec = {"kept"};
    const int ret = load_dmn_serv_cfg(&rec, "a.b", cfg);
    return Message() << ret << " " << rec.dmNme;
}
static Message dog_loaded(const config_t *cfg)
{
    tFeddogCfg rec = {3, 4, "kept", "too"};
    const int ret = load_feeddog_cfg(&rec, "a.b", cfg);
    return Message() << ret << " " << rec.feddogSec << " " << rec.feddogUSec << " " << rec.feddogNme
                     << " " << rec.txFeddogHtDmNme;
}

TEST(Config, LoadersTakeWhatIsThereAndKeepTheRest)
{
    const string longest(254, 'p'), quoted = " = \"" + longest + "pp\"; ";
    const struct {
        Message (*load)(const config_t *);
        string members, wanted; // "-": no such group
    } table[] = {
        {log_loaded,
         "logRunMd = 1; fileMod = 5; logSaveMaxCnt = 9; stdoutLogSwt = 4; fileLogSwt = 0;",
         "0 1 5 9 4 0 kept"},
        {log_loaded, "logRunMd = \"1\"; saveLogPath" + quoted, "0 2 2 77 2 2 " + longest},
        {log_loaded, "-", "ERR self_log: config_lookup(a.b) err!!!!\n-5 2 2 77 2 2 kept"},
        {serv_loaded, "dmNme = 7;", "0 kept"},
        {serv_loaded, "dmNme" + quoted, "0 " + longest},
        {serv_loaded, "-", "ERR dmn_serv: config_lookup(\"a.b\") err!!!!\n-15 kept"},
        {dog_loaded, "feddogSec = -1; feddogUSec = 5; txFeddogHtDmNme = \"/w\"; feddogNme" + quoted,
         "0 4294967295 5 " + longest.substr(0, 62) + " /w"},
        {dog_loaded, "-", "ERR self_dog: config_lookup(\"a.b\") err!!!!\n-15 3 4 kept too"},
    };
    for (const auto &row : table) {
        config_t cfg;
        config_init(&cfg);
        const string text = row.members == "-" ? "" : "a: { b: { " + row.members + " }; };";
        EXPECT_TRUE(config_read_string(&cfg, text.c_str())) << text;
        string got;
        const string said = output_of([&] { got = row.load(&cfg).GetString(); });
        EXPECT_EQ(row.wanted, tagged(said) + got) << text;
        config_destroy(&cfg);
    }
}
