// One write through kplc_write against a fuzzed PLC: the input picks a tag of
// the workspace's tag file (so every writer family is reached: words, double
// words, four words and their array forms, the bit writers with and without a
// device area, read-modify-write of structure bits, strings), the offset, the
// length and the value bytes, then scripts the PLC's replies to the resolve,
// read and write requests.
//
// The value buffer is one heap block of regNums + 1 bytes (one byte of room
// beyond the count, as a runtime hands a value), and never less than one value
// of the tag: a scalar writer sends its tag's whole value whatever the count.
// A writer that takes more value bytes than that is caught by the address
// checker. The result is one of the documented codes, and no
// descriptor is left open, also when the write fails and the link restart
// after it is refused.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "input.hpp"
#include "scripted_link.hpp"
#include "workspace.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto &ws = kplc::fuzz::workspace();
    kplc::fuzz::Input in({data, size});
    const auto ids = static_cast<unsigned>(kplc::fuzz::tag_count() + 2);

    Reg reg{};
    reg.regId = static_cast<U16>(in.u8() % ids);
    reg.regAddr = in.u16();
    reg.regNums = in.u16() % 600;
    const std::size_t room = std::max(std::size_t{reg.regNums} + 1, kplc::fuzz::value_width(reg.regId));
    auto *value = static_cast<unsigned char *>(std::malloc(room));
    if (value == nullptr) std::abort();
    std::memset(value, 0, room);
    const auto given = in.bytes(reg.regNums);
    if (!given.empty()) std::memcpy(value, given.data(), given.size());

    unsigned rc;
    {
        kplc::fuzz::ScriptedLink link(*ws.settings(), in.replies());
        rc = kplc_write(ws.drv, &ws.port.prop, &reg, value);
    }
    std::free(value);

    if (rc != ER_OK && rc != ER_TIMEOUT && rc != ER_INVALID && rc != KPLC_ER_NO_WRITER) std::abort();
    if (kplc::fuzz::descriptor_leaked()) std::abort();
    return 0;
}
