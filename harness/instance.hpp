// A driver instance as the panel runtime starts one, for the programs that
// link the driver's static archive (tests, benchmarks, fuzz targets).
#pragma once

#include <cstddef>
#include <cstdint>

#include "harness/work_folder.hpp"
#include "kplc/kplc.h"

namespace kplc::harness {

// The runtime's port record with two extra records behind it, laid out as the
// runtime hands them over.
struct Port {
    CommunicationProperty prop{};
    unsigned char extra[2 * sizeof(ex_login_t)]{};
};

// kplc_create and kplc_init on a port record pointed at ip:port.
struct Instance {
    Port port{};
    void *drv = nullptr;

    Instance(uint32_t ip, uint16_t port, uint16_t timeout_s = 1, bool datagram = false);
    ~Instance();
    Instance(const Instance &) = delete;
    Instance &operator=(const Instance &) = delete;

    // The connection settings at the head of the instance record.
    [[nodiscard]] PLC_DRV_INIT_SETTINGS *settings() const {
        return &static_cast<PLC_DRV_INIT_SETTINGS_NEW *>(drv)->view.settings;
    }
};

// Descriptors open in this process (/proc/self/fd).
std::size_t open_descriptors();

// The driver keeps loaded tag tables for the life of the process, and
// kplc_init only forgets them. Releasing both sides' tables here lets a leak
// checker see only real leaks.
void release_tag_tables();

}  // namespace kplc::harness
