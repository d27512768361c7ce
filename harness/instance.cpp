#include "harness/instance.hpp"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <stdexcept>

#include "state/process_state.hpp"

namespace kplc::harness {

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

std::size_t open_descriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

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

}  // namespace kplc::harness
