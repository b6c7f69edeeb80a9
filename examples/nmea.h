/* SPDX-License-Identifier: MIT */
/*
 * nmea: finds NMEA 0183 sentences in a stream of bytes. Pure functions without state: the caller
 * keeps the bytes, and comes back with more of them when a sentence is not complete yet.
 *
 *     int pos = 0;
 *     tNmeaItem item;
 *     while (pos += nmea_next(data + pos, len - pos, false, &item), item.kind != NMEA_MORE)
 *         ... item.text, item.len ...
 *
 * A sentence is '$', or '!' before the encapsulated ones of AIS, then a capital letter and further
 * printable 7-bit characters other than '$' and '*', then '*' and two hexadecimal digits: the XOR
 * of the characters between. It ends with its second digit, whatever follows. Everything outside of
 * sentences is noise and skipped: line ends, comments, binary messages, in which the first
 * character alone would be too frequent a sign of a sentence. A sentence that is broken off by a
 * line end, a control character or the '$' of the next one is bad, and so is one that goes on for
 * too long; the search goes on where it stopped, or at the first '!' in it.
 */
#ifndef KELVARA_EXAMPLES_NMEA_H
#define KELVARA_EXAMPLES_NMEA_H

#include <common/xfuncs.h>

#include <cstring>

/* The longest sentence, from its first character to the last check digit. The standard says 80;
 * receivers' own sentences about all satellites in view need several hundred. */
constexpr int gicNmeaMax = 1024;

typedef enum _eNmeaKind_ {
    NMEA_MORE,  /* no complete sentence in the bytes that are left */
    NMEA_VALID, /* a whole sentence, its checksum is right */
    NMEA_BAD,   /* a sentence that is not; why tells the reason */
} eNmeaKind;

typedef struct _tNmeaItem_ {
    eNmeaKind kind;
    const char *text; /* in the caller's bytes, printable throughout */
    int len;
    const char *why;
} tNmeaItem;

/* The value of a hexadecimal digit of either case, or -1. */
inline int _nmea_digit(const char aicChar)
{
    if (aicChar >= '0' && aicChar <= '9')
        return aicChar - '0';
    const char upper = static_cast<char>(aicChar & ~0x20);
    return upper >= 'A' && upper <= 'F' ? upper - 'A' + 10 : -1;
}

/* True for what may stand before '*'; the test holds for signed and unsigned char. */
inline bool _nmea_body(const char aicChar)
{
    return aicChar >= ' ' && aicChar <= '~' && aicChar != '$' && aicChar != '*';
}

/* True if a sentence begins with the first of the aicLen bytes, or may do so when more follow. */
inline bool _nmea_begins(const char *const aipcData, const int aicLen, const bool aibLast)
{
    if (aipcData[0] != '$' && aipcData[0] != '!')
        return false;
    return aicLen > 1 ? aipcData[1] >= 'A' && aipcData[1] <= 'Z' : !aibLast;
}

/* Looks at the aicLen bytes at aipcData for the first sentence, good or bad, and returns how many
 * bytes are done with: up to and including the sentence, or, with NMEA_MORE, up to the start of
 * the incomplete one, which is never longer than gicNmeaMax. aibLast: nothing will follow, so what
 * is incomplete is bad. */
inline int nmea_next(const char *const aipcData, const int aicLen, const bool aibLast,
                     tNmeaItem *const aopItem)
{
    *aopItem = {NMEA_MORE, nullptr, 0, nullptr};
    if (aicLen <= 0)
        return 0;
    int noise = 0;
    while (noise < aicLen && !_nmea_begins(aipcData + noise, aicLen - noise, aibLast))
        noise++;
    if (noise == aicLen)
        return aicLen;

    const char *const text = aipcData + noise;
    const int left = aicLen - noise;
    int star = 1;
    while (star < left && star < gicNmeaMax - 3 && _nmea_body(text[star]))
        star++;
    int end = star;
    int sum = 0;
    if (star < left && text[star] == '*') {
        for (end++; end < left && end < star + 3 && _nmea_digit(text[end]) >= 0; end++)
            sum = sum * 16 + _nmea_digit(text[end]);
    }
    if (end == left && end < star + 3 && !aibLast)
        return noise;

    aopItem->kind = NMEA_BAD;
    aopItem->text = text;
    aopItem->len = end;
    if (end == star)
        aopItem->why = end < left && _nmea_body(text[end]) ? "too long" : "cut short";
    else if (end < star + 3)
        aopItem->why = "no check digits";
    else if (xorCheckSum(text + 1, text + star - 1) != static_cast<char>(sum))
        aopItem->why = "wrong checksum";
    else
        aopItem->kind = NMEA_VALID;
    if (aopItem->kind == NMEA_BAD) {
        const void *next = memchr(text + 1, '!', static_cast<size_t>(end - 1));
        if (next != nullptr)
            aopItem->len = end = static_cast<int>(static_cast<const char *>(next) - text);
    }
    return noise + end;
}

#endif
