// SPDX-License-Identifier: MIT
// The fuzz targets; TARGET names the one to build. Each compares two ways to one result: whole and
// in pieces, there and back, library and model.
#include "../../examples/nmea.h"
#include <cassert>
#include <common/aes.h>
#include <common/bbase64.h>
#include <common/buffer.h>
#include <common/md5.h>
#include <common/self_dog.h>
#include <common/self_log.h>
#include <common/sha256.h>
#include <functional>
#include <fuzzer/FuzzedDataProvider.h>
#include <libconfig.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_OFF;
using tInput = FuzzedDataProvider;
using tBytes = std::vector<uint8_t>;

void base64(tInput &in)
{
    const std::string any = in.ConsumeRandomLengthString(400);
    const auto data = in.ConsumeRemainingBytes<uint8_t>();
    tBytes back(data.size() / 2 + data.size() % 97 + 3);
    std::vector<char> text(2 * back.size() + 2 * data.size());
    // Text of any kind: its whole groups come back as they were.
    int got = bbase64_decode(any.data(), any.size(), back.data(), back.size());
    if (got > 0)
        assert(bbase64_encode(back.data(), got, &text[0], text.size()) == (got + 2) / 3 * 4 &&
               any.compare(0, got / 3 * 4, &text[0], got / 3 * 4) == 0);
    back.resize(data.size() + 2);
    got = bbase64_encode(data.data(), data.size(), text.data(), text.size());
    assert(bbase64_decode(text.data(), got, &back[0], back.size()) == int(data.size()) &&
           std::equal(data.begin(), data.end(), back.begin()));
}

void aes(tInput &in)
{
    const std::string cuts = in.ConsumeRandomLengthString(8);
    tBytes keys = in.ConsumeBytes<uint8_t>(32);
    keys.resize(32);
    const auto run = [&](auto cbc, tBytes input, const std::string &pieces) {
        tBytes output((input.size() + 15) / 16 * 16);
        size_t left = input.size();
        cbc(output.data(), input.data(), 0, &keys[0], &keys[16]);
        for (size_t k = 0, at = 0, len; k <= pieces.size(); at += len, left -= len, ++k) {
            len = k < pieces.size() ? std::min(left / 16, size_t(pieces[k] & 7)) * 16 : left;
            cbc(output.data() + at, input.data() + at, len, nullptr, nullptr);
        }
        return output;
    };
    const tBytes plain = in.ConsumeRemainingBytes<uint8_t>();
    const tBytes cipher = run(AES128_CBC_encrypt_buffer, plain, "");
    const tBytes back = run(AES128_CBC_decrypt_buffer, cipher, cuts);
    assert(cipher == run(AES128_CBC_encrypt_buffer, plain, cuts));
    assert(back == run(AES128_CBC_decrypt_buffer, cipher, ""));
    assert(std::equal(plain.begin(), plain.end(), back.begin()));
}

void digests(tInput &in)
{
    unsigned char md[2][16], sha[2][32];
    md5_ctx mdCtx;
    sha256_ctx shaCtx;
    md5_init_ctx(&mdCtx);
    sha256_init_ctx(&shaCtx);
    std::string data;
    while (in.remaining_bytes() > 0) {
        const std::string piece = in.ConsumeRandomLengthString(300);
        md5_process_bytes(piece.data(), piece.size(), &mdCtx);
        sha256_process_bytes(piece.data(), piece.size(), &shaCtx);
        data += piece;
    }
    md5_buffer(data.data(), data.size(), md[0]);
    sha256_buffer(data.data(), data.size(), sha[0]);
    assert(memcmp(md5_finish_ctx(&mdCtx, md[1]), md[0], 16) == 0);
    assert(memcmp(sha256_finish_ctx(&shaCtx, sha[1]), sha[0], 32) == 0);
}

void buffer(tInput &in)
{
    static int ends[2];
    [[maybe_unused]] static const int made = pipe(ends);
    buffer_t *b = buffer_init(in.ConsumeIntegralInRange(0, 700)), *other = buffer_init(0);
    std::string model;
    while (in.remaining_bytes() > 0 && model.size() < 100000) {
        std::string text = in.ConsumeRandomLengthString(700);
        const auto v = in.ConsumeIntegral<uint64_t>(), net = htobe64(v);
        const std::string be(reinterpret_cast<const char *>(&net), 8);
        other->used = 0;
        write_bytes(other, text.data(), text.size());
        const std::function<void()> ops[] = {
            [&] { write_uint8(b, v), model += be[7]; },
            [&] { write_uint16(b, v), model += be.substr(6); },
            [&] { write_uint32(b, v), model += be.substr(4); },
            [&] { write_uint64(b, v), model += be; },
            [&] { buffer_append(b, other), model += text; },
            [&] { buffer_append(b, b), model += std::string(model); },
            [&] { buffer_copy(b, other), model = text.empty() ? model : text; },
            [&] {
                buffer_shift(b, v % 999), model.erase(0, v % 999 <= model.size() ? v % 999 : 0);
            },
            [&] { model.append(buffer_calloc(b, v % 99) ? v % 99 : 0, '\0'); },
            [&] { buffer_reset(b), model.clear(); },
            [&] { model.append(text, 0, write(ends[1], text.data(), text.size())); },
        };
        const int op = in.ConsumeIntegralInRange(0, 10);
        ops[op]();
        assert(op < 10 || text.empty() || read_buffer(ends[0], b) == int(text.size()));
        assert(b->used <= b->size && model == std::string(b->ptr, b->used));
    }
    assert(buffer_memory == uint64_t(b->size + other->size) + 2 * sizeof *b);
    buffer_free(b);
    buffer_free(other);
}

void config(tInput &in)
{
    const std::string text = in.ConsumeRemainingBytesAsString();
    tLogCfg log = {};
    tFeddogCfg dog = {};
    config_t cfg;
    config_init(&cfg);
    if (text.find("@include") == text.npos && config_read_string(&cfg, text.c_str()) &&
        load_log_cfg(&log, "log", &cfg) == 0)
        load_feeddog_cfg(&dog, "dog", &cfg);
    config_destroy(&cfg);
    assert(!log.saveLogPath[254] && !dog.feddogNme[62] && !dog.txFeddogHtDmNme[254]);
}

// gnssd's way from bytes to sentences, with all bytes at once and with pieces of them.
void nmea(tInput &in)
{
    std::string cuts = in.ConsumeRandomLengthString(16), data = in.ConsumeRemainingBytesAsString();
    std::string found[2];
    for (size_t from : {size_t{0}, cuts.size()}) {
        buffer_t *b = buffer_init(0);
        for (size_t k = from, at = 0, len; k <= cuts.size(); ++k, at += len) {
            len = std::min(data.size() - at, k < cuts.size() ? uint8_t(cuts[k]) : data.size());
            write_bytes(b, &data[at], len);
            tNmeaItem item = {NMEA_BAD, nullptr, 0, nullptr};
            for (int pos = 0; item.kind != NMEA_MORE; buffer_shift(b, pos)) {
                pos = nmea_next(b->ptr, b->used, k == cuts.size(), &item);
                found[from == 0].append(item.text, item.len) +=
                    item.kind == NMEA_BAD ? item.why : "";
            }
            assert(b->used <= gicNmeaMax);
        }
        buffer_free(b);
    }
    assert(cuts.empty() || found[0] == found[1]);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tInput in(data, size);
    TARGET(in);
    return 0;
}
