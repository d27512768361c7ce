// Naming and loading tag files: the two-pass chunked reader, its failures,
// and the file names both sides of the driver form.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "state/process_state.hpp"
#include "kplc/kplc.h"
#include "harness/instance.hpp"

namespace {

using kplc::harness::WorkFolder;

constexpr uint32_t kIp = 0x7F000001;

struct Loaded {
    u32 count = 0;
    kplc_tag_str *table = nullptr;
    explicit Loaded(const std::string &name) { count = kplc_build_tagtable(&table, const_cast<char *>(name.c_str())); }
    ~Loaded() { std::free(table); }
};

std::string long_line() {  // 300 characters; its last chunk is a line of its own
    std::string tail = "9,LongTail,INT,,2,,DM5,-1";
    tail.resize(45, ',');
    return std::string(255, 'x') + tail;
}

TEST(LoadTagFile, OneRecordPerChunkEndingInALineFeed) {
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        // Position decides, not the id column; a carriage return is harmless.
        {"9,First,INT,,2,,,-1\n1,Second,DINT,,4,,DM1,-1\r\n5,Third,REAL,,4,,,-1\n", {"First", "Second", "Third"}},
        {"1,A,INT,,2,,,-1\n2,B,INT,,2,,,-1", {"A"}},
        {long_line() + "\n2,Next,INT,,2,,,-1\n", {"LongTail", "Next"}},
        {std::string("1,A\0junk,INT\n2,B,INT,,2,,,-1\n", 29), {"A", "B"}},
        {"", {}},
        {"1,A,INT,,2,,,-1", {}},
    };
    WorkFolder dir;
    for (const auto &[contents, names] : cases) {
        const Loaded t(dir.write_tag_file(kIp, 0, contents));
        ASSERT_EQ(t.count, names.size()) << contents;
        EXPECT_EQ(t.table == nullptr, names.empty()) << "a failed load stores nothing";
        for (std::size_t i = 0; i < names.size(); ++i) EXPECT_EQ(t.table[i].name, names[i]);
    }
    const Loaded crlf(dir.write_tag_file(kIp, 1, "1,A,INT,,2,,DM1,-1\r\n"));
    ASSERT_EQ(crlf.count, 1u);
    EXPECT_EQ(crlf.table[0].mode_type, -1);
}

TEST(LoadTagFile, MissingFileReportsOnEveryAttempt) {
    WorkFolder dir;
    const std::regex message(R"(\[PLC\] open \./driver/PLC7F000001_3\.csv file failed, at line: \d+\r\n)");
    for (int attempt = 0; attempt < 2; ++attempt) {
        ::testing::internal::CaptureStdout();
        const Loaded t("./driver/PLC7F000001_3.csv");
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_TRUE(t.count == 0 && t.table == nullptr && std::regex_match(out, message)) << out;
    }
}

// Both sides name the file from the same PLC address and device index; the
// write side gets the address from the instance's TCP parameters.
TEST(TagFileName, ReadAndWriteSidesAgree) {
    WorkFolder dir;
    for (const uint32_t ip : {kIp, 0x0A000002u, 0xFFFFFFFFu}) {
        kplc::harness::Instance inst(ip, 9600);
        auto *tcp = reinterpret_cast<PLC_SERIAL_INIT_PARAMETERS *>(kplc::state().link.endpoint);
        for (const uint16_t dev : {0, 7, 65535}) {
            Reg reg{};
            reg._devIndex = dev;
            char read_side[50], write_side[50];
            kplc_get_csv_name(&inst.port.prop, &reg, read_side);
            kplc_get_csv_name1(tcp, nullptr, write_side, dev);
            EXPECT_STREQ(read_side, write_side);
            EXPECT_EQ(read_side, dir.write_tag_file(ip, dev, ""));
        }
    }
    char none[] = "left over";
    kplc_get_csv_name1(nullptr, nullptr, none, 0);
    EXPECT_STREQ(none, "") << "without TCP parameters the name is empty";
}

}  // namespace
