// Raw file access, the log-file append, the hex dumps and the capped sleep.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "kplc/support.h"
#include "testkit/workdir.hpp"

namespace {

using kplc::testkit::ScopedWorkdir;

std::string contents_of(const char *name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Permission bits of a file, and what owner read+write becomes under the umask.
bool created_owner_rw(const char *name) {
    struct stat st {};
    const mode_t mask = umask(0);
    umask(mask);
    return stat(name, &st) == 0 && (st.st_mode & 0777) == (0600 & ~mask);
}

TEST(RawFiles, WriteAndReadByteRangesInPlace) {
    ScopedWorkdir dir;
    char name[] = "raw.bin", missing[] = "new.bin", no_folder[] = "no/such/file.bin", buf[64] = {};
    EXPECT_EQ(Write_File(name, "hello world", 0, 11), 11);
    EXPECT_TRUE(created_owner_rw(name));
    EXPECT_EQ(Write_File(name, "W", 6, 1), 1);  // not truncated: the rest stays
    EXPECT_EQ(Write_File(name, "!", 13, 1), 1);  // past the end: a hole of zeros
    EXPECT_EQ(Write_File(name, "x", -1, 1), -1);
    EXPECT_EQ(Write_File(no_folder, "x", 0, 1), -1);
    EXPECT_EQ(contents_of(name), std::string("hello World\0\0!", 14));

    const struct {
        int addr, count, want_result;
        std::string want;
    } reads[] = {{0, 5, 5, "hello"}, {6, 100, 8, std::string("World\0\0!", 8)}, {40, 4, 0, ""}, {0, -1, -1, ""}};
    for (const auto &r : reads) {
        EXPECT_EQ(Read_File(name, buf, r.addr, r.count), r.want_result) << r.addr << "/" << r.count;
        EXPECT_EQ(std::string(buf, r.want.size()), r.want) << r.addr << "/" << r.count;
    }
    EXPECT_EQ(Read_File(missing, buf, 0, 8), 0);  // created, empty
    EXPECT_EQ(std::filesystem::file_size(missing), 0u);
    EXPECT_TRUE(created_owner_rw(missing));
}

TEST(ZelLog, AppendsAsFormattedAndCutsLongMessages) {
    ScopedWorkdir dir;
    char name[] = "driver.log", cut[] = "cut.log", unopenable[] = "no/such/folder.log";
    zel_log(name, "value=%d ", 42);
    zel_log(name, "%s|", "next");
    EXPECT_EQ(contents_of(name), "value=42 next|");
    const std::string long_text(400, 'z');
    zel_log(cut, "%s", long_text.c_str());
    EXPECT_EQ(contents_of(cut), long_text.substr(0, 255));
    zel_log(unopenable, "%d", 1);
    EXPECT_FALSE(std::filesystem::exists(unopenable));
}

TEST(HexDump, PrintsTenBytesPerLine) {
    const struct {
        const char *prefix;  // nullptr: dump_b
        std::string bytes, want;
    } cases[] = {{nullptr, "\x01\x0a\xff", "[dump_b] len=3\r\n0x01 0x0a 0xff \r\n"},
                 {nullptr, "", "[dump_b] len=0\r\n"},
                 {nullptr, "0123456789A",
                  "[dump_b] len=11\r\n0x30 0x31 0x32 0x33 0x34 0x35 0x36 0x37 0x38 0x39 \r\n0x41 \r\n"},
                 {"rx", "\x10\x20", "[rx]\tlen=2\r\n0x10 0x20 \r\n"}};
    for (auto c : cases) {
        auto *data = reinterpret_cast<unsigned char *>(c.bytes.data());
        testing::internal::CaptureStdout();
        if (c.prefix == nullptr) dump_b(data, static_cast<int>(c.bytes.size()));
        else _dump(c.prefix, data, static_cast<int>(c.bytes.size()));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.want);
    }
}

TEST(ZelSleepMs, ReturnsAtOnceForZeroAndCapsAtOneSecond) {
    using Clock = std::chrono::steady_clock;
    auto start = Clock::now();
    zel_sleep_ms(0);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(50));
    start = Clock::now();
    zel_sleep_ms(5000);
    const auto slept = Clock::now() - start;
    EXPECT_GE(slept, std::chrono::milliseconds(1000));
    EXPECT_LT(slept, std::chrono::milliseconds(2500));
}

}  // namespace
