// Writers of a run of consecutive elements of a numeric array tag. The resolve
// request names every element of the run (tag name plus index suffix, in
// row-major order), but only the first element's location is used: the PLC
// stores the run as consecutive words from there, in one word write.
#include <array>
#include <cstdio>

#include "kplc/driver.h"
#include "protocol/names.hpp"
#include "write/session.hpp"
#include "write/writers.hpp"

namespace kplc::write {
namespace {

using proto::element_name;
using proto::kMaxNameUnits;
using proto::name_units;

// Bytes of the panel's buffer per 16-bit word.
constexpr uint32_t kWordBytes = 2;

}  // namespace

// A run that does not fit one request (the 1024-byte buffer, or the one-byte
// symbol and word counts) is refused whole rather than split: a split would
// make one runtime write two PLC writes that can half succeed.
unsigned write_run(PLC_DRV_INIT_SETTINGS *settings, const kplc_tag_str &tag, ElementRun run,
                   const unsigned char *bytes, uint32_t words_per_element) noexcept {
    const uint32_t first = run.first;
    const uint32_t count = run.count;
    // A run of no elements still goes out, as a resolve of no names and a
    // word write of no words; its result follows the replies.
    if (count > kMaxNamesPerResolve || count > kMaxWordsPerWrite / words_per_element) {
        std::printf("[PLC] array write of %u elements to %.255s exceeds one request at line %d\r\n", count,
                    tag.name, __LINE__);
        return ER_INVALID;
    }
    Session session(settings);
    ResolveRequest request(session.request(), session.sequence(), tag.mode_type);
    std::array<char, sizeof tag.name> name{};
    std::array<uint16_t, kMaxNameUnits + 1> units{};
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t element = first + i;
        const auto named = element_name(name, tag, tag.attr, element);
        const auto n = named ? name_units(name.data(), units) : std::nullopt;
        if (!n) {
            std::printf("[PLC] element %u of %.255s has no name within 255 characters at line %d\r\n", element,
                        tag.name, __LINE__);
            return ER_INVALID;
        }
        if (!request.add(std::span<const uint16_t>(units.data(), *n))) {
            std::printf("[PLC] names of %u elements of %.255s do not fit one request at line %d\r\n", count,
                        tag.name, __LINE__);
            return ER_INVALID;
        }
    }
    const Resolution r = send_resolve(session, request.finish(), tag.name);
    if (r.kind != Resolution::Item) return ER_INVALID;
    const uint32_t words = count * words_per_element;
    const std::span<const uint8_t> value(bytes, std::size_t{words} * kWordBytes);
    return write_words(session, r.item, static_cast<uint8_t>(words), value, ValueOrder::PanelWords, 1);
}

}  // namespace kplc::write
