#include "bench_kit.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/instance.hpp"
#include "state/process_state.hpp"

namespace kplc::bench {

Workdir::Workdir() {
    std::string pattern = "/tmp/kplc-bench-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
    std::filesystem::create_directory(path_ + "/driver");
    previous_ = std::filesystem::current_path().string();
    std::filesystem::current_path(path_);
}

Workdir::~Workdir() {
    std::error_code ec;
    std::filesystem::current_path(previous_, ec);
    std::filesystem::remove_all(path_, ec);
}

std::string Workdir::write_tag_file(uint32_t ip, int dev_index, const std::string &text) const {
    char name[64];
    std::snprintf(name, sizeof name, "./driver/PLC%08X_%d.csv", static_cast<unsigned>(ip), dev_index);
    std::ofstream(name, std::ios::binary) << text;
    return name;
}

std::string dint_tags(std::size_t count) {
    std::string text;
    char line[96];
    for (std::size_t k = 0; k < count; ++k) {
        std::snprintf(line, sizeof line, "%zu,V%05zu,DINT,,4,,DM%zu,-1\n", k + 1, k, 100 + 2 * k);
        text += line;
    }
    return text;
}

std::string mixed_tags(std::size_t count) {
    // One line of each kind per cycle; %1$zu is the id, %2$zu a running number.
    static constexpr const char *kKinds[] = {
        "%zu,Motor%zu.Speed,REAL,,4,,DM%zu,-1\n",
        "%zu,Counter%zu,DINT,,4,,EM%zu,-1\n",
        "%zu,Recipe%zu,INT,[0..99],200,,DM%zu,-1\n",
        "%zu,Grid%zu,UDINT,[0..9_0..9],400,,,-1\n",
        "%zu,Cube%zu,INT,[1..4_0..3_0..2],96,,W%zu,-1\n",
        "%zu,Label%zu,STRING,[0..3],84,,,-1\n",
        "%zu,Flag%zu,BOOL,,1,,MR%zu,-1\n",
        "%zu,Main.Step%zu,UINT,,2,,,0\n",
        "%zu,Axis%zu[2,3],LREAL,,8,,,-1\n",
        "%zu,Cell%zu[1][2].Val,DINT,,4,,,-1\n",
    };
    std::string text;
    char line[160];
    for (std::size_t k = 0; k < count; ++k) {
        const char *kind = kKinds[k % std::size(kKinds)];
        std::snprintf(line, sizeof line, kind, k + 1, k, 100 + k % 5000);
        text += line;
    }
    return text;
}

std::vector<kplc_tag_str> parse_table(const std::string &text) {
    std::vector<kplc_tag_str> table;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        std::string line = text.substr(at, end - at);
        table.push_back(kplc_tag_str{});
        kplc_pase_str(line.data(), &table.back());
        at = end;
    }
    return table;
}

Driver::Driver(uint16_t tcp_port, uint16_t timeout_s) {
    port.prop._sizeExtra = static_cast<U16>(sizeof port.extra);
    port.prop._baud = kLoopbackAddress;
    port.prop._datBits = tcp_port;
    port.prop._workMode = 0;  // TCP
    port.prop._plcGlobalTimeout = timeout_s;
    port.prop._protocalTimeout1 = 50;
    drv = kplc_create();
    if (drv == nullptr) throw std::runtime_error("kplc_create failed");
    kplc_init(drv, &port.prop);
}

Driver::~Driver() {
    if (kplc::state().link.up && socket() > 0) ::close(socket());
    kplc::state().link.up = false;
    std::free(drv);
}

int Driver::socket() const { return kplc::settings_of(drv)->serial_handle; }

double percentile(std::vector<double> &samples, double p) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const auto rank = static_cast<std::size_t>(std::ceil(p / 100.0 * static_cast<double>(samples.size())));
    return samples[std::clamp<std::size_t>(rank, 1, samples.size()) - 1];
}

}  // namespace kplc::bench
