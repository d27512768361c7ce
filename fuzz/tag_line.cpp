// One tag definition line, as kplc_pase_str gets it from the loader or any
// other caller: arbitrary bytes, zero-terminated. Whatever the line, the
// record's texts stay terminated inside their fields, the shape, name class
// and device class come from their fixed sets, and the line is not changed.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "format/device_class.hpp"
#include "kplc/tags.h"

namespace {

bool terminated(const void *field, std::size_t size) { return std::memchr(field, 0, size) != nullptr; }

bool known_device_class(uint8_t c) {
    using namespace kplc::format;
    for (const uint8_t k : {kDeviceR, kDeviceCR, kDeviceDM, kDeviceCM, kDeviceTM, kDeviceMR, kDeviceLR, kDeviceEM,
                            kDeviceFM, kDeviceB, kDeviceW, kNoDevice, kDeviceZF})
        if (c == k) return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Exactly the line and its terminator on the heap, so a read past the
    // terminator is caught by the address checker.
    std::vector<char> line(data, data + size);
    line.push_back('\0');
    const std::vector<char> original = line;
    auto *tag = static_cast<kplc_tag_str *>(std::calloc(1, sizeof(kplc_tag_str)));
    if (tag == nullptr) return 0;

    if (kplc_pase_str(line.data(), tag) != 0) std::abort();
    if (line != original) std::abort();
    if (!terminated(tag->name, sizeof tag->name) || !terminated(tag->local_name, sizeof tag->local_name)) std::abort();
    if (tag->var_type < 1 || tag->var_type > 3) std::abort();
    if (tag->attr != NORMAL && tag->attr != ARRAY && tag->attr != STRING && tag->attr != ARRAY2 && tag->attr != ARRAY3)
        std::abort();
    if (!known_device_class(tag->address)) std::abort();
    // The reserved fields are never filled from a line.
    if (tag->addr != 0 || tag->offset != 0) std::abort();
    std::free(tag);
    return 0;
}
