#include "plc.hpp"

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "format/wire.hpp"
#include "protocol/frame.hpp"

namespace kplc::sim {

namespace {

using proto::Command;
using proto::FrameReader;
using proto::FrameWriter;

constexpr uint16_t kProtocolVersion = 1;

// A reply under construction: the header is written at once, the status can
// be changed until the reply is finished.
class Reply {
public:
    Reply(uint16_t sequence, uint16_t command) : buf_(kMaxReply), w_(buf_), sequence_(sequence), command_(command) {
        // The status takes the place a request's command code has.
        w_.begin(static_cast<Command>(kStatusOk), sequence);
        w_.u16(command);
    }
    FrameWriter &w() { return w_; }
    void status(uint16_t status) { w_.patch_u16(wire::kStatusOffset, status); }

    // The finished frame; a reply that outgrew kMaxReply becomes a refusal.
    std::vector<uint8_t> finish() {
        std::size_t size = w_.finish();
        if (size == 0) return refusal(sequence_, command_, kStatusTooLarge);
        buf_.resize(size);
        return std::move(buf_);
    }

    static std::vector<uint8_t> refusal(uint16_t sequence, uint16_t command, uint16_t status) {
        Reply r(sequence, command);
        r.status(status);
        return r.finish();
    }

private:
    std::vector<uint8_t> buf_;
    FrameWriter w_;
    uint16_t sequence_;
    uint16_t command_;
};

bool read_u32(FrameReader &r, uint32_t &out) {
    uint16_t hi = 0;
    uint16_t lo = 0;
    if (!r.u16(hi) || !r.u16(lo)) return false;
    out = uint32_t{hi} << 16 | lo;
    return true;
}

bool write_s32(FrameWriter &w, int32_t value) { return w.u32(static_cast<uint32_t>(value)); }

}  // namespace

Plc::Plc(std::string_view tag_text) : tags_(tag_text, memory_, warnings_) {}

Plc Plc::from_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot open tag file " + path);
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) throw std::runtime_error("cannot read tag file " + path);
    return Plc(text.str());
}

std::vector<uint8_t> Plc::handle(std::span<const uint8_t> request) {
    std::lock_guard lock(mutex_);
    return dispatch(request);
}

std::vector<uint8_t> Plc::dispatch(std::span<const uint8_t> request) {
    FrameReader r(request, wire::kHeaderSize);
    const uint16_t sequence = wire::sequence_of(request).value_or(0);
    const uint16_t command = wire::command_of(request).value_or(0);
    if (request.size() < wire::kHeaderSize) return Reply::refusal(sequence, command, kStatusMalformed);
    Reply reply(sequence, command);
    FrameWriter &w = reply.w();

    switch (static_cast<Command>(command)) {
        case Command::FirstCatalogue: {
            w.u16(kProtocolVersion);
            w.u16(static_cast<uint16_t>(tags_.programs().size()));
            return reply.finish();
        }

        case Command::ProgramCatalogue: {
            // Programs whose name cannot be carried (empty, or too long for the
            // one-byte length) are not listed; nor are those that would make
            // the reply longer than the driver receives.
            std::vector<const Program *> listed;
            std::size_t size = wire::kCatalogueEntriesOffset;
            for (const Program &p : tags_.programs()) {
                const std::size_t entry = wire::kCatalogueEntryLead + 1 + wire::kCatalogueEntryGap + 1 +
                                          2 * p.units.size() + wire::kCatalogueEntryTail;
                if (p.units.empty() || p.units.size() > wire::kCatalogueMaxNameUnits || listed.size() == 0xFF ||
                    size + entry > kReceiveArea) {
                    continue;
                }
                listed.push_back(&p);
                size += entry;
            }
            w.u8(static_cast<uint8_t>(listed.size()));
            for (std::size_t i = 0; i < listed.size(); ++i) {
                static_assert(wire::kCatalogueEntryLead == 2 && wire::kCatalogueEntryGap == 1 &&
                              wire::kCatalogueEntryTail == 1);
                w.u16(static_cast<uint16_t>(i));
                w.u8(static_cast<uint8_t>(wire::kCatalogueLengthBias + 2 * listed[i]->units.size()));
                w.u8(0);
                w.u8(listed[i]->id);
                for (char16_t unit : listed[i]->units) w.u16(unit);
                w.u8(0);
            }
            return reply.finish();
        }

        case Command::SymbolResolve: {
            // Read every name before answering: a request cut short, or with
            // a scope block of another kind, is refused as a whole.
            wire::SymbolCursor symbols(request);
            if (!symbols.valid()) break;
            const int scope = symbols.scope() == wire::kGlobalScope ? kGlobal : symbols.scope();
            std::vector<std::u16string> names(symbols.count());
            bool complete = true;
            for (auto &name : names) {
                const auto bytes = symbols.next();
                if (!bytes) {
                    complete = false;
                    break;
                }
                name.resize(bytes->size() / 2);
                for (std::size_t i = 0; i < name.size(); ++i) name[i] = static_cast<char16_t>(wire::be16(*bytes, 2 * i));
            }
            if (!complete) break;

            w.u8(0);
            const std::size_t count_at = w.size();
            w.u16(0);
            static_assert(wire::kItemCountOffset == wire::kReplyDataOffset + 1);
            uint16_t items = 0;
            for (const auto &name : names) {
                const auto found = tags_.resolve(scope, std::u16string_view(name));
                if (!found) {
                    reply.status(kStatusUnknownName);
                    break;
                }
                const Tag &tag = *found->tag;
                const uint32_t element_bytes = tag.is_string ? tag.text_bytes : tag.is_bool ? 1 : tag.stride / 8;
                // The item's fields in order, each where the wire home puts it.
                w.u16(tag.rec.type);
                w.u16(static_cast<uint16_t>(element_bytes));
                w.u8(found->area);
                w.u32(found->location);
                w.zeros(wire::kItemBitNumberHigh - wire::kItemLocation - wire::kItemLocationSize);
                // The bit inside the word; the high byte is always 0.
                w.u16(static_cast<uint16_t>(found->location & 15));
                w.zeros(wire::kItemExtensionCount - wire::kItemBitNumber - 1);
                w.u8(found->subscript_count);
                for (std::size_t i = 0; i < found->subscript_count; ++i) write_s32(w, found->subscripts[i]);
                ++items;
            }
            w.patch_u16(count_at, items);
            return reply.finish();
        }

        case Command::ReadByLocation: {
            const auto entries = wire::location_count(request);
            if (!entries || request.size() < wire::kLocationHeaderSize) break;
            for (std::size_t i = 0; i < *entries; ++i) {
                const auto entry = wire::location_entry(request, i);
                if (!entry) return Reply::refusal(sequence, command, kStatusMalformed);
                const auto data = memory_.read(entry->area, entry->location, entry->words);
                if (!data) return Reply::refusal(sequence, command, kStatusBadLocation);
                w.bytes(*data);
            }
            return reply.finish();
        }

        case Command::WordWrite: {
            // 00, area, word count (u32), location (u32), the words.
            uint8_t zero = 0;
            uint8_t area = 0;
            uint32_t words = 0;
            uint32_t location = 0;
            if (!r.u8(zero) || !r.u8(area) || !read_u32(r, words) || !read_u32(r, location)) break;
            const auto data = r.take(2 * std::size_t{words});
            if (!data) break;
            if (!memory_.write(area, location, *data)) reply.status(kStatusBadLocation);
            return reply.finish();
        }

        case Command::WordAreaBitWrite: {
            // 00 01, area, location (u32), value, mask (u16).
            uint16_t constant = 0;
            uint8_t area = 0;
            uint32_t location = 0;
            uint8_t value = 0;
            uint16_t mask = 0;
            if (!r.u16(constant) || !r.u8(area) || !read_u32(r, location) || !r.u8(value) || !r.u16(mask)) break;
            if (!memory_.write_masked(area, location, value != 0, mask)) reply.status(kStatusBadLocation);
            return reply.finish();
        }

        case Command::SetBit:
        case Command::ResetBit: {
            // 01, device class, the low 16 bits of the location. The device
            // class names the area.
            uint8_t constant = 0;
            uint8_t device = 0;
            uint16_t location = 0;
            if (!r.u8(constant) || !r.u8(device) || !r.u16(location)) break;
            if (!memory_.set_bit(device, location, static_cast<Command>(command) == Command::SetBit)) {
                reply.status(kStatusBadLocation);
            }
            return reply.finish();
        }

        default:
            return Reply::refusal(sequence, command, kStatusUnknownCommand);
    }
    // A body that ends before its fields do.
    return Reply::refusal(sequence, command, kStatusMalformed);
}

std::string Plc::save_state() {
    std::lock_guard lock(mutex_);
    std::ostringstream out;
    memory_.save(out);
    return out.str();
}

void Plc::load_state(std::istream &in) {
    std::lock_guard lock(mutex_);
    memory_.load(in);
}

std::optional<std::vector<uint8_t>> Plc::peek(int scope, std::string_view name, std::size_t bytes) {
    std::lock_guard lock(mutex_);
    const auto found = tags_.resolve(scope, name);
    if (!found) return std::nullopt;
    const auto data = memory_.read(found->area, found->location, (bytes + 1) / 2);
    if (!data) return std::nullopt;
    return std::vector<uint8_t>(data->begin(), data->begin() + static_cast<std::ptrdiff_t>(bytes));
}

bool Plc::poke(int scope, std::string_view name, std::span<const uint8_t> bytes) {
    std::lock_guard lock(mutex_);
    const auto found = tags_.resolve(scope, name);
    return found && memory_.write(found->area, found->location, bytes);
}

std::optional<bool> Plc::peek_bit(int scope, std::string_view name) {
    std::lock_guard lock(mutex_);
    const auto found = tags_.resolve(scope, name);
    if (!found) return std::nullopt;
    return memory_.bit(found->area, found->location);
}

bool Plc::poke_bit(int scope, std::string_view name, bool on) {
    std::lock_guard lock(mutex_);
    const auto found = tags_.resolve(scope, name);
    return found && memory_.set_bit(found->area, found->location, on);
}

}  // namespace kplc::sim
