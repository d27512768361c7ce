#include "plan.hpp"

#include "format/frame_limits.hpp"
#include "format/tag.hpp"
#include "format/wire.hpp"

#include <algorithm>

#include "text.hpp"

namespace kplc::cli {
namespace {

// The driver's frame sizes and one-byte counts.
constexpr std::size_t kResolveOverhead = wire::kProgramResolveOverhead;
constexpr std::size_t kLocationOverhead = wire::kLocationHeaderSize;
constexpr std::size_t kLocationEntry = wire::kLocationEntrySize;
constexpr std::size_t kValueOverhead = proto::kResponseDataOffset;
constexpr std::size_t kWriteFrame = proto::kRequestSize;
constexpr uint32_t kMaxWriteWords = proto::kMaxWordsPerWrite;
constexpr uint32_t kMaxWriteNames = proto::kMaxNamesPerResolve;
using format::kMaxBoolRun;
// A string write carries its length in one byte of data_len; the limit is
// even, so no fill byte falls inside a text.
constexpr uint32_t kMaxTextChunk = format::kMaxTextBytes;
static_assert(kMaxTextChunk % 2 == 0);

bool is_numeric_array(const Tag &tag) {
    return tag.rec.attr == ARRAY || tag.rec.attr == ARRAY2 || tag.rec.attr == ARRAY3;
}

// Response bytes of one element: its word count, twice.
std::size_t value_bytes(const Tag &tag) {
    if (tag.rec.bits == 0) return 2 * std::size_t{format::string_chunk_words(tag.element_bytes)};
    return 2 * std::size_t{format::words_per_element(tag.rec.bits)};
}

// Register address and count of elements [first, first + count) in the read
// path's units.
void units(const Tag &tag, uint32_t first, uint32_t count, uint32_t &addr, uint32_t &nums) {
    if (tag.is_text() && !tag.is_string_shape()) {
        addr = 0;
        nums = tag.element_bytes;
        return;
    }
    const uint32_t width = tag.rec.bits == 1 ? 1 : tag.element_bytes;
    addr = first * width;
    nums = count * width;
}

}  // namespace

ReadPlan plan_reads(const TagSet &tags, std::span<const Selection> selections, const ReadLimits &limits) {
    ReadPlan plan;
    std::vector<ReadPart> batch;
    // Bytes of the request frames and of the two replies: every one must fit
    // the driver's 4096-byte areas (the resolve reply with each item's
    // extensions, which the driver's own bound of 24 bytes per item leaves out).
    std::size_t names = 0, resolve = kResolveOverhead, values = kValueOverhead, items = wire::kItemStart;
    auto location = [&] { return kLocationOverhead + kLocationEntry * names; };
    auto close_batch = [&] {
        if (!batch.empty()) plan.batches.push_back(std::move(batch));
        batch.clear();
        names = 0;
        resolve = kResolveOverhead;
        values = kValueOverhead;
        items = wire::kItemStart;
    };

    for (std::size_t s = 0; s < selections.size(); ++s) {
        const Selection &sel = selections[s];
        const Tag &tag = tags.tags().at(sel.tag);
        if (tag.element_bytes == 0 || !tag.shape) {
            plan.error = cat("tag '", tag.label, "' has no usable type, length or bounds");
            return plan;
        }
        const std::size_t per_value = value_bytes(tag);
        const std::size_t per_item = wire::item_bytes(format::name_subscripts(tag.rec));
        plan.buffer_bytes.push_back(std::size_t{sel.count} * tag.element_bytes);
        uint32_t e = sel.first;
        const uint32_t end = sel.first + sel.count;
        while (e < end) {
            if (batch.size() == limits.max_requests) close_batch();
            ReadPart part;
            part.selection = s;
            part.reg_id = tag.id;
            part.offset = std::size_t{e - sel.first} * tag.element_bytes;
            uint32_t count = 0;
            while (e + count < end) {
                const std::size_t name = read_name_cost(tag, e + count);
                if (names + 1 > limits.max_names || resolve + name > limits.frame_bytes ||
                    location() + kLocationEntry > limits.frame_bytes || values + per_value > limits.frame_bytes ||
                    items + per_item > limits.frame_bytes)
                    break;
                ++names;
                resolve += name;
                values += per_value;
                items += per_item;
                ++count;
            }
            if (count == 0) {
                if (batch.empty()) {
                    plan.error = cat("an element of '", tag.label, "' is too large for one read");
                    return plan;
                }
                close_batch();
                continue;
            }
            units(tag, e, count, part.reg_addr, part.reg_nums);
            part.bytes = std::size_t{count} * tag.element_bytes;
            batch.push_back(part);
            e += count;
        }
    }
    close_batch();
    return plan;
}

WritePlan plan_write(const TagSet &tags, const Selection &target, std::span<const std::vector<uint8_t>> values) {
    WritePlan plan;
    const Tag &tag = tags.tags().at(target.tag);
    if (tag.element_bytes == 0 || !tag.shape) {
        plan.error = cat("tag '", tag.label, "' has no usable type, length or bounds");
        return plan;
    }
    const uint32_t first = target.first;
    const auto count = static_cast<uint32_t>(values.size());
    auto add = [&](uint32_t addr, uint32_t nums, std::vector<uint8_t> data) {
        data.push_back(0);  // spare byte
        plan.parts.push_back({tag.id, addr, nums, std::move(data)});
    };

    if (tag.is_text()) {
        if (!tag.is_string_shape()) {
            add(0, static_cast<uint32_t>(values[0].size()), values[0]);
            return plan;
        }
        const uint32_t es = tag.element_bytes;
        for (uint32_t i = 0; i < count; ++i) {
            // A text shorter than its element ends with a terminator, so that
            // nothing of an earlier, longer text remains visible.
            std::vector<uint8_t> text = values[i];
            for (uint32_t t = 0; t < format::terminator_bytes(tag.rec.type) && text.size() < es; ++t) text.push_back(0);
            const uint32_t base = (first + i) * es;
            for (std::size_t off = 0; off < text.size(); off += kMaxTextChunk) {
                const std::size_t n = std::min<std::size_t>(kMaxTextChunk, text.size() - off);
                add(base + static_cast<uint32_t>(off), static_cast<uint32_t>(n),
                    std::vector<uint8_t>(text.begin() + static_cast<std::ptrdiff_t>(off),
                                         text.begin() + static_cast<std::ptrdiff_t>(off + n)));
            }
        }
        return plan;
    }

    if (tag.rec.bits == 1) {
        // One value byte per bit; a single BOOL is written as the tag itself.
        if (tag.shape->dims == 0) {
            add(0, 1, values[0]);
            return plan;
        }
        for (uint32_t i = 0; i < count; i += kMaxBoolRun) {
            const uint32_t n = std::min(kMaxBoolRun, count - i);
            std::vector<uint8_t> data;
            for (uint32_t k = 0; k < n; ++k) data.push_back(values[i + k][0]);
            add(first + i, n, std::move(data));
        }
        return plan;
    }

    const uint32_t width = tag.element_bytes;
    if (!is_numeric_array(tag)) {
        add(0, width, values[0]);
        return plan;
    }
    // Runs of elements whose resolve request (one name per element) and word
    // write fit the write path's buffers and one-byte counts.
    const uint32_t words = format::words_per_element(tag.rec.bits);
    uint32_t i = 0;
    while (i < count) {
        std::size_t resolve = kResolveOverhead;
        uint32_t n = 0;
        while (i + n < count && n < kMaxWriteNames && (n + 1) * words <= kMaxWriteWords) {
            const std::size_t name = read_name_cost(tag, first + i + n);
            if (resolve + name > kWriteFrame) break;
            resolve += name;
            ++n;
        }
        if (n == 0) {
            plan.error = cat("the name of '", tag.label, "' is too long for a write request");
            plan.parts.clear();
            return plan;
        }
        std::vector<uint8_t> data;
        for (uint32_t k = 0; k < n; ++k) data.insert(data.end(), values[i + k].begin(), values[i + k].end());
        add((first + i) * width, n * width, std::move(data));
        i += n;
    }
    return plan;
}

}  // namespace kplc::cli
