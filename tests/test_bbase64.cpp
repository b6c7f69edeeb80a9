// SPDX-License-Identifier: MIT
#include "support.h"
#include <common/bbase64.h>
#include <common/self_log.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

using std::string;
using tResult = std::pair<int, string>;

// The result and what was written: the room up to the last byte that is not the filling any more.
// Input and room end where their memory ends, which the address sanitizer watches.
template <typename tFrom, typename tTo>
static tResult run(int (*codec)(const tFrom *, size_t, tTo *, size_t), const string &in,
                   size_t room)
{
    string out(room, '\xaa');
    const int result = codec(reinterpret_cast<const tFrom *>(in.data()), in.size(),
                             reinterpret_cast<tTo *>(out.data()), room);
    return {result, out.substr(0, out.find_last_not_of('\xaa') + 1)};
}

TEST(Base64, DecodedCases)
{
    const std::tuple<string, size_t, tResult> cases[] = {
        // RFC 4648, section 10; bytes above 127
        {"", 9, {0, ""}},
        {"Zm8=", 3, {2, "fo"}},
        {"Zm9vYmE=", 6, {5, "fooba"}},
        {"//sAgA==", 9, {4, string("\xff\xfb\0\x80", 4)}},
        // Incomplete groups, and text after the padding
        {"TQ", 9, {0, ""}},
        {"TWFu!!!", 9, {3, "Man"}},
        {"TQ==TWFu", 9, {1, "M"}},
        {"TWE=!!!!", 9, {2, "Ma"}},
        // Padding: where it may stand, and bits that reach no byte
        {"QR==", 9, {1, "A"}},
        {"QQ=A", 9, {1, "A"}},
        {"=AAA", 9, {-1, ""}},
        {"A=AA", 9, {-1, ""}},
        {"TWFuA===", 9, {-1, "Man"}},
        {"QQ=!", 9, {-1, ""}},
        {"QQ!=", 9, {-1, ""}},
        // Room counts by 3 bytes a group, and bounds what is looked at.
        {"TWFu", 2, {0, ""}},
        {"TWFuTQ==", 5, {3, "Man"}},
        {"TWFu!!!!", 5, {3, "Man"}}};
    for (const auto &[text, room, wanted] : cases)
        EXPECT_EQ(run(bbase64_decode, text, room), wanted) << text << " into " << room;
}

TEST(Base64, KnowsEveryByteInEveryPlace)
{
    const string set = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int i = 0, place = 0; i < 4 * 256; i++, place = i / 256) {
        string text = "////";
        text[size_t(place)] = char(i);
        const bool known = set.find(char(i)) != string::npos;
        const auto [got, bytes] = run(bbase64_decode, text, 3);
        EXPECT_EQ(got, known ? 3 : i % 256 == '=' && place >= 2 ? place - 1 : -1) << text;
        EXPECT_TRUE(!known || run(bbase64_encode, bytes, 4) == tResult(4, text)) << text;
    }
}

TEST(Base64, RandomBytesComeBack)
{
    for (size_t len = 0; len < 400; len++) {
        const string data = noise(len, 1) + '.'; // none of the filling at the end
        const size_t need = (len + 3) / 3 * 4;
        const auto [got, text] = run(bbase64_encode, data, need);
        ASSERT_EQ(size_t(got), need);
        EXPECT_EQ(run(bbase64_decode, text, need / 4 * 3), tResult(len + 1, data));
        for (size_t room : {need - 1, need / 2}) // what fits is written
            EXPECT_EQ(run(bbase64_encode, data, room), tResult(-1, text.substr(0, room / 4 * 4)));
    }
}
