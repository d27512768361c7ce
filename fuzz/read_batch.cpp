// A read batch against a fuzzed PLC: the input picks up to twelve register
// requests on the tags of the workspace's tag file (ids, offsets and lengths
// of any value, out-of-range ids included), then scripts the PLC's replies
// (symbol resolve and read by location, per scope). The real request building
// and value decoding run on them.
//
// Every runtime record is its own heap block of exactly the size the runtime
// would give it: the request array, the buffer records, the pointer array, and
// each value buffer of regNums bytes. A write past any of them is caught by
// the address checker. Requests of a program the read never reaches keep their
// buffer and result untouched, a failed batch reports its result in every
// request, and no descriptor is left open.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "input.hpp"
#include "scripted_link.hpp"
#include "workspace.hpp"

namespace {

constexpr std::size_t kMaxRequests = 12;
constexpr uint32_t kUntouched = 0xDEAD;
constexpr uint8_t kFill = 0xA5;
// Ids of the tags local to programs 9 and 12, which no read pass serves.
constexpr uint16_t kUnreadIds[] = {47, 48};

template <typename T>
struct Block {
    explicit Block(std::size_t n) : n(n), p(static_cast<T *>(std::malloc(n * sizeof(T)))) {
        if (p == nullptr && n != 0) std::abort();
    }
    ~Block() { std::free(p); }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    std::size_t n;
    T *p;
};

bool unread(uint16_t id) {
    for (const uint16_t u : kUnreadIds)
        if (id == u) return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto &ws = kplc::fuzz::workspace();
    kplc::fuzz::Input in({data, size});
    const std::size_t n = 1 + in.u8() % kMaxRequests;
    const auto ids = static_cast<unsigned>(kplc::fuzz::tag_count() + 2);  // 0 and id_max + 1 too

    Block<Reg> regs(n);
    Block<DrvRWBuf> bufs(n);
    Block<DrvRWBuf *> ptrs(n);
    std::vector<std::unique_ptr<Block<uint8_t>>> values;
    for (std::size_t i = 0; i < n; ++i) {
        Reg &r = regs.p[i];
        std::memset(&r, 0, sizeof r);
        r.regId = static_cast<U16>(in.u8() % ids);
        r.regAddr = in.u16();
        r.regNums = in.u16() % 2048;
        const uint8_t sized = in.u8();
        values.push_back(std::make_unique<Block<uint8_t>>(r.regNums));
        std::memset(values.back()->p, kFill, r.regNums);
        // The runtime may or may not fill in `size`; the buffer holds regNums bytes either way.
        bufs.p[i] = DrvRWBuf{0, values.back()->p, (sized & 1) != 0 ? static_cast<int32_t>(r.regNums) : 0, kUntouched};
        ptrs.p[i] = &bufs.p[i];
    }
    std::vector<uint16_t> asked(n);
    for (std::size_t i = 0; i < n; ++i) asked[i] = regs.p[i].regId;

    unsigned rc;
    {
        kplc::fuzz::ScriptedLink link(*ws.settings(), in.replies());
        rc = kplc_mulity_read(ws.drv, &ws.port.prop, regs.p, static_cast<int>(n), ptrs.p);
    }

    if (rc != ER_OK && rc != ER_TIMEOUT && rc != ER_INVALID) std::abort();
    for (std::size_t i = 0; i < n; ++i) {
        if (rc != ER_OK && bufs.p[i].error != rc) std::abort();
        if (rc == ER_OK && unread(asked[i])) {
            if (bufs.p[i].error != kUntouched) std::abort();
            for (std::size_t k = 0; k < values[i]->n; ++k)
                if (values[i]->p[k] != kFill) std::abort();
        }
    }
    if (kplc::fuzz::descriptor_leaked()) std::abort();
    return 0;
}
