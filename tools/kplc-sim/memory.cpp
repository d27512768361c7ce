#include "memory.hpp"

#include <algorithm>
#include <cstdio>
#include <istream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <tuple>

namespace kplc::sim {

namespace {

// Spare room behind the last tag of an area, and the granule areas are sized in.
constexpr uint64_t kSpareBytes = 64;
constexpr uint64_t kAreaGranule = 256;

constexpr uint32_t location_of_byte(uint64_t byte) { return static_cast<uint32_t>(byte << 3); }

}  // namespace

Memory::Area &Memory::area_for(uint8_t code) {
    auto [it, inserted] = areas_.try_emplace(code);
    if (inserted) it->second.byte_addressed = code == kTextArea;
    return it->second;
}

std::optional<uint32_t> Memory::allocate_words(uint8_t area, uint64_t words) {
    Area &a = area_for(area);
    const uint64_t start = (a.used + 1) & ~uint64_t{1};
    if (words > kMaxAreaBytes / 2 || start + 2 * words > kMaxAreaBytes) return std::nullopt;
    a.used = start + 2 * words;
    return location_of_byte(start);
}

std::optional<uint32_t> Memory::allocate_bit(uint8_t area) {
    Area &a = area_for(area);
    if (a.bool_bit >= 16) {
        const auto word = allocate_words(area, 1);
        if (!word) return std::nullopt;
        a.bool_word = *word >> 4;
        a.bool_bit = 0;
    }
    return (a.bool_word << 4) | a.bool_bit++;
}

std::optional<uint32_t> Memory::allocate_text(uint64_t bytes) { return allocate_words(kTextArea, (bytes + 1) / 2); }

void Memory::seal() {
    for (auto &[code, a] : areas_) {
        const uint64_t size = (a.used + kSpareBytes + kAreaGranule - 1) / kAreaGranule * kAreaGranule;
        if (a.bytes.size() < size) a.bytes.resize(size, 0);
    }
}

std::optional<std::size_t> Memory::start_of(const Area &a, uint32_t location, uint64_t bytes) {
    const uint64_t start = a.byte_addressed ? uint64_t{location} >> 3 : (uint64_t{location} >> 4) * 2;
    if (start > a.bytes.size() || bytes > a.bytes.size() - start) return std::nullopt;
    return static_cast<std::size_t>(start);
}

std::optional<std::size_t> Memory::word_of(const Area &a, uint32_t location) {
    const uint64_t start = (uint64_t{location} >> 4) * 2;
    if (start + 2 > a.bytes.size()) return std::nullopt;
    return static_cast<std::size_t>(start);
}

std::optional<std::span<const uint8_t>> Memory::read(uint8_t area, uint32_t location, uint64_t words) const {
    const auto it = areas_.find(area);
    if (it == areas_.end() || words > kMaxAreaBytes) return std::nullopt;
    const auto start = start_of(it->second, location, 2 * words);
    if (!start) return std::nullopt;
    return std::span<const uint8_t>(it->second.bytes).subspan(*start, static_cast<std::size_t>(2 * words));
}

bool Memory::write(uint8_t area, uint32_t location, std::span<const uint8_t> data) {
    const auto it = areas_.find(area);
    if (it == areas_.end()) return false;
    const auto start = start_of(it->second, location, data.size());
    if (!start) return false;
    std::copy(data.begin(), data.end(), it->second.bytes.begin() + static_cast<std::ptrdiff_t>(*start));
    return true;
}

bool Memory::write_masked(uint8_t area, uint32_t location, bool value, uint16_t mask) {
    const auto it = areas_.find(area);
    if (it == areas_.end()) return false;
    const auto at = word_of(it->second, location);
    if (!at) return false;
    auto &bytes = it->second.bytes;
    uint16_t word = static_cast<uint16_t>(bytes[*at] << 8 | bytes[*at + 1]);
    word = value ? static_cast<uint16_t>(word | mask) : static_cast<uint16_t>(word & mask);
    bytes[*at] = static_cast<uint8_t>(word >> 8);
    bytes[*at + 1] = static_cast<uint8_t>(word);
    return true;
}

bool Memory::set_bit(uint8_t area, uint32_t location, bool on) {
    const auto mask = static_cast<uint16_t>(1u << (location & 15));
    return write_masked(area, location, on, on ? mask : static_cast<uint16_t>(~mask));
}

std::optional<bool> Memory::bit(uint8_t area, uint32_t location) const {
    const auto it = areas_.find(area);
    if (it == areas_.end()) return std::nullopt;
    const auto at = word_of(it->second, location);
    if (!at) return std::nullopt;
    const auto &bytes = it->second.bytes;
    const unsigned word = static_cast<unsigned>(bytes[*at] << 8 | bytes[*at + 1]);
    return ((word >> (location & 15)) & 1u) != 0;
}

void Memory::save(std::ostream &out) const {
    constexpr std::size_t kRow = 32;
    out << "# kplc-sim state: AREA OFFSET BYTES (hexadecimal), rows of zeros left out\n";
    for (const auto &[code, area] : areas_) {
        for (std::size_t at = 0; at < area.bytes.size(); at += kRow) {
            const std::size_t n = std::min(kRow, area.bytes.size() - at);
            const auto row = area.bytes.begin() + static_cast<std::ptrdiff_t>(at);
            if (std::all_of(row, row + static_cast<std::ptrdiff_t>(n), [](uint8_t b) { return b == 0; })) continue;
            char head[32];
            std::snprintf(head, sizeof head, "%02X %06zX", static_cast<unsigned>(code), at);
            out << head;
            for (std::size_t i = 0; i < n; ++i) {
                std::snprintf(head, sizeof head, " %02X", static_cast<unsigned>(area.bytes[at + i]));
                out << head;
            }
            out << '\n';
        }
    }
}

void Memory::load(std::istream &in) {
    // Parsed whole first, so a bad line leaves the memory as it was.
    std::vector<std::tuple<uint8_t, std::size_t, std::vector<uint8_t>>> rows;
    std::string line;
    for (std::size_t number = 1; std::getline(in, line); ++number) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        unsigned code = 0;
        std::size_t offset = 0;
        std::vector<uint8_t> bytes;
        fields >> std::hex >> code >> offset;
        unsigned byte = 0;
        while (fields >> byte && byte <= 0xFF) bytes.push_back(static_cast<uint8_t>(byte));
        const auto fail = [&](const std::string &why) {
            throw std::runtime_error("line " + std::to_string(number) + ": " + why);
        };
        if (fields.fail() && !fields.eof()) fail("expected AREA OFFSET BYTES in hexadecimal");
        if (bytes.empty() || byte > 0xFF) fail("expected AREA OFFSET BYTES in hexadecimal");
        const auto it = code <= 0xFF ? areas_.find(static_cast<uint8_t>(code)) : areas_.end();
        if (it == areas_.end()) fail("no area " + std::to_string(code) + " in this tag file's memory");
        if (offset > it->second.bytes.size() || bytes.size() > it->second.bytes.size() - offset) {
            fail("bytes beyond the end of area " + std::to_string(code));
        }
        rows.emplace_back(static_cast<uint8_t>(code), offset, std::move(bytes));
    }
    for (const auto &[code, offset, bytes] : rows) {
        std::copy(bytes.begin(), bytes.end(), areas_[code].bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    }
}

}  // namespace kplc::sim
