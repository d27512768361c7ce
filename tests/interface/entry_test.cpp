// Entry points of the driver: instance set-up from the runtime's port record,
// the registries a new instance empties and the control command.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <tuple>

#include "support/instance.hpp"
#include "state/process_state.hpp"
#include "kplc/kplc.h"
#include "harness/instance.hpp"

namespace {

using kplc::harness::Port;

struct InitCase {
    const char *what;
    uint16_t work_mode, size_extra, port;
    uint8_t want_mode, want_ex_count;
    int16_t want_port;
};

class InitFromPort : public ::testing::TestWithParam<InitCase> {};

TEST_P(InitFromPort, CopiesThePortSettingsIntoTheInstance) {
    const InitCase &c = GetParam();
    Port port;
    port.prop._workMode = c.work_mode, port.prop._sizeExtra = c.size_extra, port.prop._baud = 0xC0A8000A;
    port.prop._datBits = c.port, port.prop._plcGlobalTimeout = 7, port.prop._protocalTimeout1 = 250;

    auto *rec = static_cast<PLC_DRV_INIT_SETTINGS_NEW *>(kplc_create());
    ASSERT_NE(rec, nullptr);
    rec->view.settings.timeout2 = 0xDEADBEEF;  // whatever was there must not survive
    EXPECT_EQ(kplc_init(rec, &port.prop), static_cast<unsigned>(ER_OK));

    const PLC_DRV_INIT_SETTINGS *view = kplc::settings_of(rec);
    const auto &tcp = rec->old_serial_settings;
    EXPECT_EQ(std::tuple(view->timeout2, view->response_timeout, view->timeout1), std::tuple(0u, 7u, 250u));
    EXPECT_EQ(tcp.com_device, nullptr);
    EXPECT_EQ(static_cast<uint32_t>(tcp.ipaddr), 0xC0A8000Au);
    EXPECT_EQ(std::tuple(tcp.port, tcp.mode, rec->ex_count), std::tuple(c.want_port, c.want_mode, c.want_ex_count));
    EXPECT_EQ(tcp.stop_bits, 0) << "a cleared record means no interface binding";
    EXPECT_EQ(reinterpret_cast<unsigned char *>(rec->ex_login), port.extra);
    const auto &st = kplc::state();
    EXPECT_EQ(std::tuple(st.link.endpoint, st.ex_login, st.link.up, st.link.write_sid),
              std::tuple(&tcp, rec->ex_login, false, 0));
    std::free(rec);
}

INSTANTIATE_TEST_SUITE_P(Cases, InitFromPort, ::testing::Values(
    InitCase{"stream", 0, 0, 8500, 'U', 0, 8500}, InitCase{"datagram", 1, 49, 8500, 0, 0, 8500},
    InitCase{"any_non_zero_work_mode", 7, 100, 502, 0, 2, 502},
    InitCase{"count_kept_to_8_bits", 0, 65535, 1, 'U', 30, 1},
    InitCase{"port_above_32767", 0, 50, 40000, 'U', 1, static_cast<int16_t>(40000 - 65536)}),
    [](const auto &info) { return std::string(info.param.what); });

TEST(Init, EmptiesBothRegistriesAndResetsTheWriteCounter) {
    auto &st = kplc::state();
    Port port;
    void *drv = kplc_create();
    kplc_init(drv, &port.prop);
    static kplc_tag_str table[1];
    char name[] = "./driver/PLC00000000_0.csv", other[] = "./driver/PLC00000000_1.csv";
    ASSERT_EQ(kplc_add_tagtable(&st.read_tags, name, table, 1), 1);
    ASSERT_EQ(kplc_add_tagtable(&st.read_tags, other, table, 1), 1);
    ASSERT_EQ(kplc_add_tagtable(&st.write_tags, name, table, 1), 1);
    // The registry never releases its entries; the test does, once they are unlinked.
    kplc_plc_tag *entries[] = {kplc_get_tagtable(&st.read_tags, name), kplc_get_tagtable(&st.read_tags, other),
                               kplc_get_tagtable(&st.write_tags, name)};
    EXPECT_STREQ(entries[0]->name, name) << "each file name finds its own table";
    EXPECT_STREQ(entries[1]->name, other);
    st.link.write_sid = 77;
    st.link.up = true;

    kplc_init(drv, &port.prop);
    EXPECT_EQ(kplc_get_tagtable(&st.read_tags, name), nullptr);
    EXPECT_EQ(kplc_get_tagtable(&st.read_tags, other), nullptr);
    EXPECT_EQ(kplc_get_tagtable(&st.write_tags, name), nullptr);
    EXPECT_EQ(st.link.write_sid, 0);
    EXPECT_FALSE(st.link.up);
    for (kplc_plc_tag *entry : entries) std::free(entry->name), std::free(entry);
    std::free(drv);
}

TEST(Ioctrl, MultiReadPropertiesAreEightBytesAndSilent) {
    unsigned char out[12];
    std::memset(out, 0xAA, sizeof out);
    testing::internal::CaptureStdout();
    EXPECT_EQ(kplc_ioctrl(nullptr, nullptr, 1000, nullptr, out), static_cast<unsigned>(ER_OK));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    const unsigned char want[12] = {8, 0, 0, 0, 16, 0, 0, 0, 0xAA, 0xAA, 0xAA, 0xAA};
    EXPECT_EQ(std::memcmp(out, want, sizeof want), 0);
}

}  // namespace
