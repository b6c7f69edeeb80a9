// SPDX-License-Identifier: MIT
#include <common/dmn_serv.h>
#include <common/self_dog.h>
#include <common/self_log.h>

#include "support.h"

eLogLevl gLogLevl = LOG_LEV_ERROR;

// Each loader on a preset record: its result, and what the record holds then.
static std::string log_loaded(const config_t *cfg)
{
    tLogCfg rec = {LOG_RUN_MAX, LOG_FILE_MAX, 77, LOG_SWITCH_MAX, LOG_SWITCH_MAX, "kept"};
    const int ret = load_log_cfg(&rec, "a.b", cfg);
    const int64_t fields[] = {
        ret, rec.logRunMd, rec.fileMod, rec.logSaveMaxCnt, rec.stdoutLogSwt, rec.fileLogSwt};
    std::string got;
    for (const int64_t field : fields)
        got += std::to_string(field) + " ";
    return got + rec.saveLogPath;
}
static std::string serv_loaded(const config_t *cfg)
{
    tDmnServCfg rec = {"kept"};
    const int ret = load_dmn_serv_cfg(&rec, "a.b", cfg);
    return std::to_string(ret) + " " + rec.dmNme;
}
static std::string dog_loaded(const config_t *cfg)
{
    tFeddogCfg rec = {3, 4, "kept", "too"};
    const int ret = load_feeddog_cfg(&rec, "a.b", cfg);
    return std::to_string(ret) + " " + std::to_string(rec.feddogSec) + " " +
           std::to_string(rec.feddogUSec) + " " + rec.feddogNme + " " + rec.txFeddogHtDmNme;
}

TEST(Config, LoadersTakeWhatIsThereAndKeepTheRest)
{
    const std::string name(70, 'n'), path(300, 'p'), quoted = " = \"" + path + "\"; ";
    const struct {
        std::string (*load)(const config_t *);
        std::string members, wanted; // "-": no such group
    } table[] = {
        {log_loaded, "", "0 2 2 77 2 2 kept"},
        {log_loaded,
         "logRunMd = 1; fileMod = 5; logSaveMaxCnt = 9; stdoutLogSwt = 4; fileLogSwt = 0; "
         "saveLogPath = \"/a\";",
         "0 1 5 9 4 0 /a"},
        {log_loaded, "logRunMd = \"1\"; fileMod = \"x\"; saveLogPath = 3;", "0 2 2 77 2 2 kept"},
        {log_loaded, "saveLogPath" + quoted, "0 2 2 77 2 2 " + path.substr(0, 254)},
        {log_loaded, "-", "ERR self_log: config_lookup(a.b) err!!!!\n-5 2 2 77 2 2 kept"},
        {serv_loaded, "", "0 kept"},
        {serv_loaded, "dmNme = \"/run/x\";", "0 /run/x"},
        {serv_loaded, "dmNme = 7;", "0 kept"},
        {serv_loaded, "dmNme" + quoted, "0 " + path.substr(0, 254)},
        {serv_loaded, "-", "ERR dmn_serv: config_lookup(\"a.b\") err!!!!\n-15 kept"},
        {dog_loaded, "", "0 3 4 kept too"},
        {dog_loaded,
         "feddogSec = 2; feddogUSec = 500000; feddogNme = \"gnssd\"; txFeddogHtDmNme = \"/w\";",
         "0 2 500000 gnssd /w"},
        {dog_loaded, "feddogSec = -1; feddogUSec = \"x\"; feddogNme = 3; txFeddogHtDmNme = 4;",
         "0 4294967295 4 kept too"},
        {dog_loaded, "feddogNme = \"" + name + "\"; txFeddogHtDmNme" + quoted,
         "0 3 4 " + name.substr(0, 62) + " " + path.substr(0, 254)},
        {dog_loaded, "-", "ERR self_dog: config_lookup(\"a.b\") err!!!!\n-15 3 4 kept too"},
    };
    for (const auto &row : table) {
        config_t cfg;
        config_init(&cfg);
        const std::string text = row.members == "-" ? "" : "a: { b: { " + row.members + " }; };";
        EXPECT_EQ(CONFIG_TRUE, config_read_string(&cfg, text.c_str())) << text;
        std::string got;
        const std::string said = output_of([&] { got = row.load(&cfg); });
        EXPECT_EQ(row.wanted, tagged(said) + got) << text;
        config_destroy(&cfg);
    }
}
