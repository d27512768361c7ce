#include "testkit/workdir.hpp"

#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/instance.hpp"
#include "state/process_state.hpp"

namespace kplc::testkit {

ScopedWorkdir::ScopedWorkdir() {
    previous_ = std::filesystem::current_path().string();
    std::string pattern = (std::filesystem::temp_directory_path() / "kplc-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
    std::filesystem::create_directory(std::filesystem::path(path_) / "driver");
    std::filesystem::current_path(path_);
}

ScopedWorkdir::~ScopedWorkdir() {
    std::error_code ec;
    std::filesystem::current_path(previous_, ec);
    std::filesystem::remove_all(path_, ec);
}

std::string ScopedWorkdir::write_tag_file(uint32_t ip, int dev_index, std::string_view contents) const {
    char name[64];
    std::snprintf(name, sizeof name, "./driver/PLC%08X_%d.csv", ip, dev_index);
    std::ofstream out(std::filesystem::path(path_) / name, std::ios::binary);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    return name;
}

Instance::Instance(uint32_t ip, uint16_t port_no, uint16_t timeout_s, bool datagram) {
    port.prop._sizeExtra = static_cast<U16>(sizeof port.extra), port.prop._baud = ip, port.prop._datBits = port_no;
    port.prop._workMode = datagram ? 1 : 0, port.prop._plcGlobalTimeout = timeout_s, port.prop._protocalTimeout1 = 50;
    drv = kplc_create();
    if (drv == nullptr) throw std::runtime_error("kplc_create failed");
    kplc_init(drv, &port.prop);
}

Instance::~Instance() {
    // A link that is up holds an open socket; close it so tests do not leak descriptors.
    if (kplc::state().link.up && settings()->serial_handle > 0) ::close(settings()->serial_handle);
    kplc::state().link.up = false;
    std::free(drv);
}

PLC_DRV_INIT_SETTINGS *Instance::settings() const { return kplc::settings_of(drv); }

namespace {
void release_registry(kplc_plc_tag &head) {
    for (list_head *link = head.list.next; link != nullptr && link != &head.list;) {
        auto *entry = reinterpret_cast<kplc_plc_tag *>(reinterpret_cast<char *>(link) - offsetof(kplc_plc_tag, list));
        link = link->next;
        std::free(entry->name);
        std::free(entry->tag_table);
        std::free(entry);
    }
    kplc_init_tag(&head);
}
}  // namespace

void release_tag_tables() {
    release_registry(kplc::state().read_tags);
    release_registry(kplc::state().write_tags);
}

std::size_t open_descriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

}  // namespace kplc::testkit
