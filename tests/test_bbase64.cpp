// SPDX-License-Identifier: MIT
#include <common/bbase64.h>
#include <common/self_log.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>
#ifdef KELVARA_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

eLogLevl gLogLevl = LOG_LEV_ERROR;

namespace
{

using std::string;
using tResult = std::pair<int, string>;

const string gicSet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const string gicHigh("\xff\xfb\0\x80", 4);

// The result and what was written: the room up to the last byte that is not the filling any more.
// Input and room end where their memory ends, which the address sanitizer watches.
template <typename tFrom, typename tTo>
tResult run(int (*codec)(const tFrom *, size_t, tTo *, size_t), const string &in, size_t room)
{
    string out(room, '\xaa');
    const int result = codec(reinterpret_cast<const tFrom *>(in.data()), in.size(),
                             reinterpret_cast<tTo *>(out.data()), room);
    return {result, out.substr(0, out.find_last_not_of('\xaa') + 1)};
}

struct tCase {
    string in;
    size_t room;
    int result;
    string out; // what is written
};

// clang-format off
const tCase gicEncoded[] = {
    // RFC 4648, section 10
    {"", 0, 0, ""}, {"f", 4, 4, "Zg=="}, {"fo", 4, 4, "Zm8="}, {"foo", 9, 4, "Zm9v"},
    {"foob", 8, 8, "Zm9vYg=="}, {"fooba", 9, 8, "Zm9vYmE="}, {"foobar", 8, 8, "Zm9vYmFy"},
    {gicHigh, 8, 8, "//sAgA=="},
    // Too little room: what fits is written.
    {"M", 3, -1, ""}, {"Ma", 3, -1, ""}, {"Man", 3, -1, ""}, {"Man!", 4, -1, "TWFu"},
    {"Man!!", 7, -1, "TWFu"}, {"ManMan", 7, -1, "TWFu"}};
const tCase gicDecoded[] = {
    {"", 9, 0, ""}, {"Zg==", 9, 1, "f"}, {"Zm8=", 3, 2, "fo"}, {"Zm9v", 3, 3, "foo"},
    {"Zm9vYg==", 6, 4, "foob"}, {"Zm9vYmE=", 6, 5, "fooba"}, {"Zm9vYmFy", 6, 6, "foobar"},
    {"//sAgA==", 9, 4, gicHigh},
    // Incomplete groups, and text after the padding.
    {"TQ", 9, 0, ""}, {"TWFuTQ", 9, 3, "Man"}, {"TWFu!!!", 9, 3, "Man"},
    {"TQ==TWFu", 9, 1, "M"}, {"TWE=!!!!", 9, 2, "Ma"},
    // Padding: where it may stand, and bits that reach no byte.
    {"QR==", 9, 1, "A"}, {"QQ=A", 9, 1, "A"}, {"=AAA", 9, -1, ""}, {"A=AA", 9, -1, ""},
    {"====", 9, -1, ""}, {"TWFuA===", 9, -1, "Man"}, {"QQ=!", 9, -1, ""}, {"QQ!=", 9, -1, ""},
    {"TW u", 9, -1, ""}, {"TWFuTW\nu", 9, -1, "Man"},
    // Room counts by 3 bytes a group, and bounds what is looked at.
    {"TWFu", 2, 0, ""}, {"TWFuTWFu", 5, 3, "Man"}, {"TQ==", 2, 0, ""},
    {"TWFuTQ==", 5, 3, "Man"}, {"TWFu!!!!", 5, 3, "Man"}};
// clang-format on

TEST(Base64, Cases)
{
    for (const tCase &c : gicEncoded)
        EXPECT_EQ(run(bbase64_encode, c.in, c.room), tResult(c.result, c.out)) << c.in << c.room;
    for (const tCase &c : gicDecoded)
        EXPECT_EQ(run(bbase64_decode, c.in, c.room), tResult(c.result, c.out)) << c.in << c.room;
}

TEST(Base64, KnowsEveryByteInEveryPlace)
{
    for (size_t place = 0; place < 4; place++)
        for (int byte = 0; byte < 256; byte++) {
            string text = "////";
            text[place] = static_cast<char>(byte);
            const auto [got, out] = run(bbase64_decode, text, 3);
            if (byte == '=' && place >= 2)
                EXPECT_EQ(got, static_cast<int>(place) - 1);
            else if (gicSet.find(text[place]) == string::npos)
                EXPECT_EQ(got, -1) << place << " " << byte;
            else
                EXPECT_EQ(run(bbase64_encode, out, 4), tResult(4, text)) << place << " " << byte;
        }
}

TEST(Base64, RandomBytesComeBack)
{
    std::mt19937 random(1);
    string data;
    for (size_t len = 1; len < 400; len++) {
        data.resize(len, '.'); // none of the filling at the end
        if (len > 1)
            data[len - 2] = static_cast<char>(random());
        const size_t need = (len + 2) / 3 * 4;
        const auto [got, text] = run(bbase64_encode, data, need);
        ASSERT_EQ(static_cast<size_t>(got), need);
        EXPECT_EQ(run(bbase64_encode, data, need - 1).first, -1);
        EXPECT_EQ(run(bbase64_decode, text, need / 4 * 3), tResult(static_cast<int>(len), data));
#ifdef KELVARA_HAVE_OPENSSL
        std::vector<unsigned char> in(data.begin(), data.end()), judge(need + 1);
        EVP_EncodeBlock(judge.data(), in.data(), static_cast<int>(len));
        ASSERT_EQ(text, string(judge.begin(), judge.end() - 1));
#endif
    }
}

} // namespace
