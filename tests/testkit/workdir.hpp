// Test helpers around the driver's working folder and its entry points.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kplc/kplc.h"

namespace kplc::testkit {

// A fresh temporary folder with a ./driver/ subfolder, made the current
// working folder for the scope's lifetime (the driver reads its tag files
// relative to the working folder).
class ScopedWorkdir {
public:
    ScopedWorkdir();
    ~ScopedWorkdir();
    ScopedWorkdir(const ScopedWorkdir &) = delete;
    ScopedWorkdir &operator=(const ScopedWorkdir &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }
    // Writes ./driver/PLC%08X_%d.csv with exactly `contents`; returns its relative name.
    std::string write_tag_file(uint32_t ip, int dev_index, std::string_view contents) const;

private:
    std::string path_;
    std::string previous_;
};

// A runtime port record with the extra records behind it, as the runtime lays it out.
struct PortSettings {
    CommunicationProperty prop{};
    unsigned char extra[2 * sizeof(ex_login_t)]{};
};

// A created and initialised driver instance pointed at ip:port.
struct Instance {
    PortSettings port{};
    void *drv = nullptr;

    Instance(uint32_t ip, uint16_t port, uint16_t timeout_s = 1, bool datagram = false);
    ~Instance();
    Instance(const Instance &) = delete;
    Instance &operator=(const Instance &) = delete;

    [[nodiscard]] PLC_DRV_INIT_SETTINGS *settings() const;
};

// Descriptors open in this process (/proc/self/fd).
std::size_t open_descriptors();

// The driver keeps loaded tag tables for the life of the process, and
// kplc_init only forgets them. Tests release both sides' tables here so the
// leak checker sees only real leaks.
void release_tag_tables();

}  // namespace kplc::testkit
