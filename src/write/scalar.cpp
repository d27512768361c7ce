// Writers of one 16-, 32- or 64-bit value into a tag addressed by its name:
// resolve the name, then one word write of the value at the resolved location.
// The panel holds the value little-endian; it travels least significant word
// first, each word high byte first.
#include <cstddef>

#include "kplc/driver.h"
#include "write/session.hpp"
#include "write/writers.hpp"

namespace kplc::write {
namespace {

// A word write is acknowledged by a reply of more than 12 bytes; the wider
// writes accept any non-empty reply. No status byte is examined.
constexpr std::size_t kWordReplyMin = 13;
constexpr std::size_t kAnyReply = 1;

}  // namespace

unsigned write_value(PLC_DRV_INIT_SETTINGS *settings, const kplc_tag_str &tag, const unsigned char *bytes,
                     uint32_t words) noexcept {
    Session session(settings);
    const Resolution r = resolve_name(session, tag.name, tag.mode_type);
    if (r.kind != Resolution::Item) return ER_INVALID;
    // A scalar write always writes the whole tag, one element: offset and
    // count are not used, and the runtime's buffer holds the tag's value.
    const std::span<const uint8_t> value(bytes, 2 * std::size_t{words});
    return write_words(session, r.item, static_cast<uint8_t>(words), value, ValueOrder::PanelWords,
                       words == 1 ? kWordReplyMin : kAnyReply);
}

}  // namespace kplc::write
