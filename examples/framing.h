/* SPDX-License-Identifier: MIT */
/*
 * framing: the records that gnssd publishes with records = "framed". A stream socket does not
 * preserve message boundaries, so each record starts with its length; all numbers are big-endian:
 *
 *     bytes  0-3   length of the rest: 16 + n
 *            4-7   sequence number, one more for each record
 *            8-15  microseconds since 1970 when the sentence was read
 *           16-19  n
 *           20-    the n characters of the sentence, without a line end
 *
 * A client that reads too slowly loses bytes. It finds the next whole record by the two lengths and
 * by the sentence, which is text. The sequence numbers show how many records are missing.
 */
#ifndef KELVARA_EXAMPLES_FRAMING_H
#define KELVARA_EXAMPLES_FRAMING_H

#include <common/buffer.h>

#include "nmea.h"

constexpr uint32_t gicFrameHead = 20;               /* bytes before the sentence */
constexpr uint32_t gicFrameRest = gicFrameHead - 4; /* those that the length counts */

typedef struct _tFrame_ {
    uint32_t seq;
    uint64_t timeUs;
    const char *text; /* in the caller's bytes */
    uint32_t len;
} tFrame;

/* Appends one record with the aicLen characters at aipcText to the buffer. */
inline void frame_write(buffer_t *const aipBuf, const uint32_t aicSeq, const uint64_t aicTimeUs,
                        char *const aipcText, const uint32_t aicLen)
{
    write_uint32(aipBuf, gicFrameRest + aicLen);
    write_uint32(aipBuf, aicSeq);
    write_uint64(aipBuf, aicTimeUs);
    write_string(aipBuf, aipcText, aicLen);
}

/* The big-endian number in the aicBytes bytes at aipcData. */
inline uint64_t _frame_number(const char *const aipcData, const int aicBytes)
{
    uint64_t value = 0;
    for (int i = 0; i < aicBytes; i++)
        value = value << 8 | static_cast<unsigned char>(aipcData[i]);
    return value;
}

/* Reads the record at the start of the aicLen bytes at aipcData. Returns its size, 0 when it is not
 * complete yet, or -1 when no record starts here. */
inline int frame_next(const char *const aipcData, const int aicLen, tFrame *const aopFrame)
{
    if (aicLen < static_cast<int>(gicFrameHead))
        return 0;
    const uint64_t rest = _frame_number(aipcData, 4);
    aopFrame->seq = static_cast<uint32_t>(_frame_number(aipcData + 4, 4));
    aopFrame->timeUs = _frame_number(aipcData + 8, 8);
    aopFrame->len = static_cast<uint32_t>(_frame_number(aipcData + 16, 4));
    aopFrame->text = aipcData + gicFrameHead;
    if (aopFrame->len > static_cast<uint32_t>(gicNmeaMax) || rest != gicFrameRest + aopFrame->len)
        return -1;
    const int size = static_cast<int>(gicFrameHead + aopFrame->len);
    if (aicLen < size)
        return 0;
    for (uint32_t i = 0; i < aopFrame->len; i++) {
        if (aopFrame->text[i] < ' ' || aopFrame->text[i] > '~')
            return -1;
    }
    return size;
}

#endif
