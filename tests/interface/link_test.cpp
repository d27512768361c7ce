// Link start-up: connect, the two catalogue requests, the catalogue parser and
// what a failed start-up leaves behind.
#include <gtest/gtest.h>
#include <unistd.h>


#include "protocol/link.hpp"
#include "state/process_state.hpp"
#include "kplc/kplc.h"
#include "testkit/fake_plc.hpp"
#include "harness/instance.hpp"

namespace {

using namespace kplc::testkit;
using namespace kplc::harness;

struct Program { uint32_t id; std::string name; bool operator==(const Program &) const = default; };

std::vector<Program> loaded_catalogue() {
    const auto &st = kplc::state();
    std::vector<Program> out;
    for (uint32_t i = 0; i < st.link.catalogue_size; ++i) out.push_back({st.link.catalogue[i].local_id, st.link.catalogue[i].name});
    return out;
}


// Runs the start-up against `plc` with standard output captured.
unsigned start(Instance &drv, std::string &printed) {
    testing::internal::CaptureStdout();
    const unsigned rc = kplc::link::start(drv.settings());
    printed = testing::internal::GetCapturedStdout();
    return rc;
}

std::string euro_times(std::size_t n) {
    std::string s;
    while (n-- > 0) s += "\xE2\x82\xAC";
    return s;
}

struct CatalogueCase { const char *what; Bytes response; std::vector<Program> expected; };

class CatalogueParsing : public ::testing::TestWithParam<CatalogueCase> {};

TEST_P(CatalogueParsing, KeepsWhatThePlcSent) {
    const CatalogueCase &c = GetParam();
    FakePlc plc;
    plc.reply(catalogue_first()).reply(c.response);
    Instance drv(FakePlc::kLoopback, plc.port());
    kplc::state().link.catalogue_size = 99;
    std::string printed;
    ASSERT_EQ(start(drv, printed), static_cast<unsigned>(ER_OK)) << printed;
    EXPECT_TRUE(kplc::state().link.up);
    EXPECT_EQ(loaded_catalogue(), c.expected);
    const auto requests = plc.requests();  // the two catalogue requests
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(to_hex(requests[0]), "00 00 00 06 FF FF FF F9 00 00 0C 2C 00 00 00 00");
    EXPECT_EQ(to_hex(requests[1]), "00 00 00 06 FF FF FF F9 00 01 0C 25 00 00 00 00");
}

// The bytes the parser skips are filled with AA/BB/CC here to show that they
// are not read.
Bytes with_header(const char *body) { return hex(std::string("00 00 00 1D FF FF FF E2 00 01 0C 25 00 00 ") + body); }


INSTANTIATE_TEST_SUITE_P(Responses, CatalogueParsing, ::testing::Values(
        CatalogueCase{"empty_in_15_bytes", with_header("00"), {}},
        CatalogueCase{"as_built", catalogue({{3, u"Main"}, {7, u"Prog"}}), {{3, "Main"}, {7, "Prog"}}},
        // L = 10: id at 19, name at 20..27; the next entry at 29: id at 33, name at 34..37.
        CatalogueCase{"two_entries_at_their_offsets",
                      with_header("02 AA AA 0A BB 05 00 4D 00 61 00 69 00 6E CC AA AA 06 BB 09 00 49 00 4F CC"),
                      {{5, "Main"}, {9, "IO"}}},
        CatalogueCase{"units_above_7F", catalogue({{2, u"\u00C4\u20AC"}}), {{2, "\xC3\x84\xE2\x82\xAC"}}},
        // L below 2 takes no name bytes: the next entry starts 6 bytes on.
        CatalogueCase{"length_below_two", with_header("02 AA AA 01 BB 04 CC AA AA 04 BB 06 00 41 CC"),
                      {{4, ""}, {6, "A"}}},
        // Ends inside the second entry's name: the first entry alone counts.
        CatalogueCase{"ends_early", with_header("03 AA AA 04 BB 01 00 41 CC AA AA 06 BB 02 00 42 00"), {{1, "A"}}},
        // The trailing byte of the last entry is not needed.
        CatalogueCase{"last_trailer_missing", with_header("01 AA AA 04 BB 01 00 41"), {{1, "A"}}},
        // 126 three-byte characters cut at a character boundary to fit 256 bytes.
        CatalogueCase{"name_longer_than_the_field", catalogue({{1, std::u16string(126, u'\u20AC')}}),
                      {{1, euro_times(85)}}}),
    [](const auto &info) { return std::string(info.param.what); });

enum class Fault { ShortCatalogue, EmptyFirstAnswer, NoAnswer, Refused };
struct FailureCase { const char *what; Fault fault; const char *printed; };

class FailedStart : public ::testing::TestWithParam<FailureCase> {};

// A failed start-up reports ER_TIMEOUT, leaves the link flag at 0 and the
// catalogue as it was, and no socket open, however often it is repeated.
TEST_P(FailedStart, ReportsAndLeavesNothingOpen) {
    const FailureCase &c = GetParam();
    const std::size_t before = open_descriptors();
    {
        FakePlc plc;
        const uint16_t port = plc.port();
        for (int i = 0; i < 3; ++i) {
            if (c.fault == Fault::ShortCatalogue) plc.reply(catalogue_first()).reply(Bytes(14, 0));
            if (c.fault == Fault::EmptyFirstAnswer) plc.close();
            if (c.fault == Fault::NoAnswer) plc.silence();
        }
        Instance drv(FakePlc::kLoopback, c.fault == Fault::Refused ? uint16_t{1} : port,
                     c.fault == Fault::NoAnswer ? 0 : 1);
        kplc::state().link.catalogue_size = 42;
        for (int i = 0; i < 3; ++i) {
            std::string printed;
            EXPECT_EQ(start(drv, printed), static_cast<unsigned>(ER_TIMEOUT));
            EXPECT_EQ(printed, c.printed);
            EXPECT_FALSE(kplc::state().link.up);
            EXPECT_EQ(kplc::state().link.catalogue_size, 42u);
        }
        kplc::state().link.catalogue_size = 0;
    }
    EXPECT_EQ(open_descriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Faults, FailedStart, ::testing::Values(
        FailureCase{"catalogue_of_14_bytes", Fault::ShortCatalogue,
                    "no matching relative net\r\nxplc_getlocalMSG fail\r\n"},
        FailureCase{"first_answer_empty", Fault::EmptyFirstAnswer,
                    "no matching relative net\r\nxplc_getlocalMSG fail\r\n"},
        FailureCase{"no_answer", Fault::NoAnswer,
                    "no matching relative net\r\n--timeout--\r\nxplc_getlocalMSG fail\r\n"},
        FailureCase{"connect_refused", Fault::Refused,
                    "no matching relative net\r\nconnect to 127.0.0.1 failed\r\nzel_plc_read init fail\r\n"}),
    [](const auto &info) { return std::string(info.param.what); });

}  // namespace
