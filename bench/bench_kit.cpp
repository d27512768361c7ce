#include "bench_kit.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kplc::bench {

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

double percentile(std::vector<double> &samples, double p) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const auto rank = static_cast<std::size_t>(std::ceil(p / 100.0 * static_cast<double>(samples.size())));
    return samples[std::clamp<std::size_t>(rank, 1, samples.size()) - 1];
}

}  // namespace kplc::bench
