/* SPDX-License-Identifier: MIT */
/*
 * nmea: finds NMEA 0183 sentences in a stream of bytes. The functions have no state: the caller
 * keeps the bytes of an incomplete sentence, and passes them again when more have arrived.
 *
 *     int pos = 0;
 *     tNmeaItem item;
 *     while (pos += nmea_next(data + pos, len - pos, false, &item), item.kind != NMEA_MORE)
 *         ... item.text, item.len ...
 *
 * A sentence is '$' (or '!' in the encapsulated sentences of AIS), a capital letter, printable
 * 7-bit characters other than '$' and '*', then '*' and two hexadecimal digits: the XOR of the
 * characters between. It ends with the second digit, whatever follows. Everything else is noise and
 * skipped: line ends, comments, binary messages. Because of these the first character alone does
 * not begin a sentence. A sentence is bad if a line end, a control character or the '$' of the next
 * one cuts it short, or if it is too long. The search then continues after it, or at the first '!'
 * in it.
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
    NMEA_BAD,   /* a broken sentence; why has the reason */
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

/* True for a character that may precede '*'; correct for signed and unsigned char. */
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

/* Finds the first sentence, good or bad, in the aicLen bytes at aipcData. Returns the number of
 * bytes consumed: up to the end of the sentence, or, with NMEA_MORE, up to the start of an
 * incomplete one, which is never longer than gicNmeaMax. aibLast: no bytes will follow, so an
 * incomplete sentence is bad. */
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
