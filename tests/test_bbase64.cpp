// SPDX-License-Identifier: MIT
#include <common/bbase64.h>

#include "support.h"

using tResult = std::pair<int, string>;

// The result, and the output up to the last byte that was written. Input and output end where their
// memory ends, so the address sanitizer sees any access beyond.
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
        {"//sAgA==", 9, {4, string("\xff\xfb\0\x80", 4)}},
        // An incomplete group; text after the padding
        {"TWFu!!!", 9, {3, "Man"}},
        {"TQ==TWFu", 9, {1, "M"}},
        {"TWE=!!!!", 9, {2, "Ma"}},
        // Positions of padding, and bits that belong to no byte
        {"QR=A", 9, {1, "A"}},
        {"=AAA", 9, {-1, ""}},
        {"TWFuA===", 9, {-1, "Man"}},
        {"QQ=!", 9, {-1, ""}},
        // The output size, at 3 bytes a group, also limits how much input is read.
        {"TWFu!!!!", 5, {3, "Man"}}};
    for (const auto &[text, room, wanted] : cases)
        EXPECT_EQ(wanted, run(bbase64_decode, text, room)) << text << " into " << room;
    for (int i = 0; i < 256; ++i) {
        const string text = string("/") + static_cast<char>(i) + "//";
        const bool known = isalnum(i) || i == '+' || i == '/';
        EXPECT_EQ(known ? 3 : -1, run(bbase64_decode, text, 3).first) << text;
    }
}

TEST(Base64, RandomBytesComeBack)
{
    for (size_t len = 0; len < 400; ++len) {
        const string data = noise(len, 1) + '.'; // the last byte is not the filler
        const size_t need = (len + 3) / 3 * 4;
        const auto [size, text] = run(bbase64_encode, data, need);
        ASSERT_EQ(need, static_cast<size_t>(size));
        EXPECT_EQ(tResult(len + 1, data), run(bbase64_decode, text, need / 4 * 3));
        for (const size_t room : {need - 1, need / 2}) // the groups that fit are written
            EXPECT_EQ(tResult(-1, text.substr(0, room / 4 * 4)), run(bbase64_encode, data, room));
    }
    EXPECT_EQ(tResult(8, "Zm9vYmE="), run(bbase64_encode, "fooba", 9));
}
