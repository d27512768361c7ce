// File digests at the block and padding boundaries, quoted names, refusals.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "kplc/support.h"
#include "testkit/fake_plc.hpp"
#include "harness/work_folder.hpp"

namespace {

using kplc::harness::WorkFolder;

std::string pattern(std::size_t n) {
    const auto b = kplc::testkit::pattern(n, 3);
    return {b.begin(), b.end()};
}

struct DigestCase { const char *what; std::string contents; const char *want; };
class FileDigest : public ::testing::TestWithParam<DigestCase> {};

TEST_P(FileDigest, MatchesTheReferenceDigest) {
    WorkFolder dir;
    std::ofstream("data.bin", std::ios::binary) << GetParam().contents;
    char name[] = "data.bin", sum[40];
    std::fill(std::begin(sum), std::end(sum), 'X');
    ASSERT_EQ(CalcFileMD5(name, sum), 1);
    EXPECT_EQ(std::string(sum), GetParam().want);
    EXPECT_EQ(sum[33], 'X');
}

// RFC 1321 test suite digests (55, 56 and 64 bytes sit at the padding and
// block boundaries), and a file of many blocks measured with md5sum.
INSTANTIATE_TEST_SUITE_P(Vectors, FileDigest,
    ::testing::Values(DigestCase{"empty", "", "d41d8cd98f00b204e9800998ecf8427e"},
                      DigestCase{"length_in_a_block_of_its_own_56",
                                 "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                                 "8215ef0796a20bcaaae116d3876c664a"},
                      DigestCase{"last_that_fits_55", pattern(55), "52c0e574e1198de5fe3f8f11440dcb1b"},
                      DigestCase{"one_block_64", pattern(64), "7160b8fb5e9e4023d549c3971fbaeead"},
                      DigestCase{"many_blocks_1000", pattern(1000), "10046f077f2082ac19676b8079f1cb1a"}),
    [](const auto &info) { return std::string(info.param.what); });

TEST(CalcFileMD5, QuotedNameLosesItsQuotesAndStaysUntouched) {
    WorkFolder dir;
    std::ofstream("q.bin") << "abc";
    char name[] = "\"q.bin\"", sum[33] = {};
    ASSERT_EQ(CalcFileMD5(name, sum), 1);
    EXPECT_STREQ(sum, "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_STREQ(name, "\"q.bin\"");
}

TEST(CalcFileMD5, RefusalsPrintWhyAndLeaveTheSumAlone) {
    WorkFolder dir;
    std::ofstream("big.bin").put('\0');
    ASSERT_EQ(truncate("big.bin", int64_t{1} << 31), 0);  // 2 GiB, sparse: never read
    const struct { std::string name; const char *want; } cases[] = {{"missing.bin", "Can not open this file!\n"}, {"\"", "Can not open this file!\n"},
                 {"\"" + std::string(5000, 'a') + "\"", "Can not open this file!\n"},
                 {"big.bin", "Sorry! Can not calculate files which larger than 2 GB!\n"}};
    for (auto c : cases) {
        char sum[33] = "untouched";
        testing::internal::CaptureStdout();
        EXPECT_EQ(CalcFileMD5(c.name.data(), sum), 0) << c.name.substr(0, 20);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.want) << c.name.substr(0, 20);
        EXPECT_STREQ(sum, "untouched");
    }
}

}  // namespace
