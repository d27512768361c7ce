// Helpers shared by the benchmark programs: a private working folder for the
// driver's tag files, synthetic tag files, and a driver instance.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kplc/kplc.h"

namespace kplc::bench {

inline constexpr uint32_t kLoopbackAddress = 0x7F000001;  // 127.0.0.1, the only address benchmarks use

// A fresh folder under /tmp with ./driver/ in it, made the working folder
// while the object lives (the driver finds its tag files relative to it).
class Workdir {
public:
    Workdir();
    ~Workdir();
    Workdir(const Workdir &) = delete;
    Workdir &operator=(const Workdir &) = delete;

    // Writes ./driver/PLC%08X_%d.csv; returns its relative name.
    std::string write_tag_file(uint32_t ip, int dev_index, const std::string &text) const;
    [[nodiscard]] const std::string &path() const { return path_; }

private:
    std::string path_;
    std::string previous_;
};

// `count` global DINT tags named V00000, V00001, ... (tag id k is V(k-1)).
std::string dint_tags(std::size_t count);

// `count` lines cycling through the shapes a real tag file holds: scalars of
// several types, arrays of one to three dimensions, string arrays, BOOLs on
// bit devices, program-local tags and two-index names.
std::string mixed_tags(std::size_t count);

// The records kplc_pase_str makes of each line of `text`, in order (what the
// loader would hold for the same file).
std::vector<kplc_tag_str> parse_table(const std::string &text);

// The runtime's port record with the extra records behind it.
struct Port {
    CommunicationProperty prop{};
    unsigned char extra[2 * sizeof(ex_login_t)]{};
};

// kplc_create + kplc_init for 127.0.0.1:port.
struct Driver {
    Port port{};
    void *drv = nullptr;
    Driver(uint16_t tcp_port, uint16_t timeout_s);
    ~Driver();
    Driver(const Driver &) = delete;
    Driver &operator=(const Driver &) = delete;
    // The link's socket (valid once a read or write has started the link).
    [[nodiscard]] int socket() const;
};

// Nearest-rank percentile of `samples` (sorted in place); 0 for none.
double percentile(std::vector<double> &samples, double p);

}  // namespace kplc::bench
