// SPDX-License-Identifier: MIT
// Fuzz targets for the functions that read untrusted bytes. TARGET selects the one to build.
#include <common/bbase64.h>
#include <common/dmn_serv.h>
#include <common/self_dog.h>
#include <common/self_log.h>

#include "../../examples/framing.h"

#include <cassert>
#include <fuzzer/FuzzedDataProvider.h>
#include <libconfig.h>

eLogLevl gLogLevl = LOG_LEV_OFF;

using tInput = FuzzedDataProvider;

// Decodes any text. The whole groups, encoded again, must be the same text.
static void base64(tInput &in)
{
    const std::string text = in.ConsumeRemainingBytesAsString();
    std::vector<unsigned char> bytes(text.size());
    std::vector<char> back(text.size() + 3);
    const int got = bbase64_decode(text.data(), text.size(), bytes.data(), bytes.size());
    if (got <= 0)
        return;
    assert(bbase64_encode(bytes.data(), got, back.data(), back.size()) == (got + 2) / 3 * 4);
    assert(text.compare(0, got / 3 * 4, back.data(), got / 3 * 4) == 0);
}

static void config(tInput &in)
{
    const std::string text = in.ConsumeRemainingBytesAsString();
    tLogCfg log = {};
    tDmnServCfg server = {};
    tFeddogCfg dog = {};
    config_t cfg;
    config_init(&cfg);
    if (text.find("@include") == text.npos && config_read_string(&cfg, text.c_str())) {
        (void)load_log_cfg(&log, "log", &cfg); // a missing group is valid input
        (void)load_dmn_serv_cfg(&server, "server", &cfg);
        (void)load_feeddog_cfg(&dog, "dog", &cfg);
    }
    config_destroy(&cfg);
    assert(log.saveLogPath[254] == '\0' && server.dmNme[254] == '\0');
    assert(dog.feddogNme[62] == '\0' && dog.txFeddogHtDmNme[254] == '\0');
}

// The sentences that gnssd finds must not depend on how the input is cut into pieces.
static std::string _sentences(std::string data, const std::string &cuts)
{
    std::string found;
    buffer_t *b = buffer_init(0);
    size_t at = 0;
    for (size_t k = 0; k <= cuts.size(); ++k) {
        const size_t want = k < cuts.size() ? static_cast<unsigned char>(cuts[k]) : data.size();
        const size_t len = std::min(data.size() - at, want);
        write_bytes(b, &data[at], len);
        at += len;
        tNmeaItem item = {NMEA_BAD, nullptr, 0, nullptr};
        for (int pos = 0; item.kind != NMEA_MORE; buffer_shift(b, pos)) {
            pos = nmea_next(b->ptr, b->used, k == cuts.size(), &item);
            found.append(item.text, item.len) += item.kind == NMEA_BAD ? item.why : "";
        }
        assert(b->used <= gicNmeaMax);
    }
    buffer_free(b);
    return found;
}

static void nmea(tInput &in)
{
    const std::string cuts = in.ConsumeRandomLengthString(16);
    const std::string data = in.ConsumeRemainingBytesAsString();
    assert(_sentences(data, cuts) == _sentences(data, ""));
}

// A record that was read, written again, must be the same bytes.
static void framing(tInput &in)
{
    std::string data = in.ConsumeRemainingBytesAsString();
    tFrame frame = {};
    const int size = frame_next(data.data(), static_cast<int>(data.size()), &frame);
    if (size <= 0)
        return;
    buffer_t *b = buffer_init(0);
    frame_write(b, frame.seq, frame.timeUs, &data[gicFrameHead], frame.len);
    assert(std::string(b->ptr, b->used) == data.substr(0, size));
    buffer_free(b);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tInput in(data, size);
    TARGET(in);
    return 0;
}
