// The driver as the panel runtime meets it: a shared library loaded at run
// time whose entry points are found by name. The tool never links the driver.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "kplc/records.h"
#include "kplc/tags.h"

namespace kplc::cli {

struct DriverApi {
    void *handle = nullptr;
    std::string path;
    void *(*create)(void) = nullptr;
    unsigned (*init)(void *, CommunicationProperty *) = nullptr;
    unsigned (*mulity_read)(void *, CommunicationProperty *, Reg *, int, DrvRWBuf **) = nullptr;
    unsigned (*write)(void *, CommunicationProperty *, Reg *, void *) = nullptr;
    unsigned (*driver_info)(void *, PLC_DRV_INFO *) = nullptr;
    unsigned (*ioctrl)(void *, CommunicationProperty *, int, unsigned char *, unsigned char *) = nullptr;
    int (*pase_str)(char *, kplc_tag_str *) = nullptr;
};

// Loads `explicit_path`, or else the first of: libkplc.so beside the tool, the
// library of the build tree the tool was built in, ../lib/libkplc.so, and the
// installed libkplc.so.0 (its SONAME). The library stays loaded until the
// process ends (the driver keeps its tag tables for the life of the process).
std::optional<DriverApi> load_driver(const std::string &explicit_path, std::string &error);

// The per-port records of the runtime and one driver instance set up from them.
class Session {
public:
    struct Endpoint {
        uint32_t addr;     // first octet most significant
        uint16_t port;
        uint16_t timeout;  // seconds
        bool udp;
        uint16_t dev;      // device index of every request
    };

    Session(const DriverApi &api, const Endpoint &endpoint);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // kplc_create and kplc_init, as the runtime starts a port.
    bool open(std::string &error);
    // Requests per batch that the driver announces (control command 1000).
    [[nodiscard]] std::size_t batch_limit();

    unsigned read(std::span<Reg> regs, std::span<DrvRWBuf *> buffers);
    unsigned write(Reg &reg, uint8_t *data);

    // A Reg addressing `reg_id` of this port's device.
    [[nodiscard]] Reg reg(uint16_t reg_id, uint32_t reg_addr, uint32_t reg_nums) const;

private:
    const DriverApi &api_;
    Endpoint endpoint_;
    CommunicationProperty prop_{};
    void *drv_ = nullptr;
};

// A result code in words.
std::string describe_result(uint32_t code);

// Marks a result buffer the driver did not fill in.
inline constexpr uint32_t kNotRead = 0xFFFFFFFEu;

}  // namespace kplc::cli
