// The diagnostic outputs (log-file append, the two hex dump layouts) and raw
// byte ranges of a file.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "kplc/support.h"
#include "kplc/transport.h"
#include "harness/work_folder.hpp"

namespace {

std::string contents_of(const char *name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(Diagnostics, DumpsPrintTheirLayout) {
    unsigned char bytes[21];
    for (int i = 0; i < 21; ++i) bytes[i] = static_cast<unsigned char>(0x30 + i);
    // The frame dump: 20 bytes per line, each line headed by its address and offset.
    char heads[2][40];
    for (int line = 0; line < 2; ++line)
        std::snprintf(heads[line], sizeof heads[line], "%p (%04d) :\t", static_cast<void *>(bytes + 20 * line), 20 * line);
    const struct { std::function<void()> dump; std::string want; } cases[] = {
        {[&] { dump_b(bytes, 11); }, "[dump_b] len=11\r\n0x30 0x31 0x32 0x33 0x34 0x35 0x36 0x37 0x38 0x39 \r\n0x3a \r\n"},
        {[&] { dump_b(bytes, 0); }, "[dump_b] len=0\r\n"},
        {[&] { _dump("rx", bytes, 2); }, "[rx]\tlen=2\r\n0x30 0x31 \r\n"},
        {[&] { _dump("rx", nullptr, 3); }, "[rx]\tlen=3\r\n"},  // no buffer: no bytes, whatever the length
        {[&] { EXPECT_EQ(printf_log("%d", 1), 0); }, ""},      // the switched-off debug print
        {[&] { FlushBuff(1, bytes, 21); },
         std::string(heads[0]) + "30 31 32 33 34 35 36 37 38 39 3a 3b 3c 3d 3e 3f 40 41 42 43 \r\n" + heads[1] + "44 \r\n"},
        {[&] { FlushBuff(0, bytes, 4), FlushBuff(1, nullptr, 4); }, ""},
    };
    for (const auto &c : cases) {
        testing::internal::CaptureStdout();
        c.dump();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.want);
    }
}

TEST(Diagnostics, LogAppendsAsFormattedAndCutsLongMessages) {
    kplc::harness::WorkFolder dir;
    char name[] = "driver.log", cut[] = "cut.log", unopenable[] = "no/such/folder.log";
    zel_log(name, "value=%d ", 42);
    zel_log(name, "%s|", "next");
    EXPECT_EQ(contents_of(name), "value=42 next|");
    zel_log(cut, "%s", std::string(400, 'z').c_str());
    EXPECT_EQ(contents_of(cut), std::string(255, 'z'));
    zel_log(unopenable, "%d", 1);
    EXPECT_EQ(contents_of(unopenable), "");
}

TEST(RawFiles, WriteAndReadByteRangesInPlace) {
    kplc::harness::WorkFolder dir;
    char name[] = "raw.bin", buf[16] = {};
    EXPECT_EQ(Write_File(name, "hello world", 0, 11), 11);
    EXPECT_EQ(Write_File(name, "W", 6, 1), 1);   // not truncated: the rest stays
    EXPECT_EQ(Write_File(name, "!", 13, 1), 1);  // past the end: a hole of zeros
    EXPECT_EQ(Write_File(name, "x", -1, 1), -1);
    EXPECT_EQ(contents_of(name), std::string("hello World\0\0!", 14));
    const struct { int addr, count, want_result; std::string want; } reads[] = {{0, 5, 5, "hello"}, {6, 100, 8, std::string("World\0\0!", 8)}, {40, 4, 0, ""}, {0, -1, -1, ""}};
    for (const auto &r : reads) {
        EXPECT_EQ(Read_File(name, buf, r.addr, r.count), r.want_result) << r.addr << "/" << r.count;
        EXPECT_EQ(std::string(buf, r.want.size()), r.want) << r.addr << "/" << r.count;
    }
}

}  // namespace
