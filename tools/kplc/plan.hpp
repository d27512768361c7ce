// Turns selections into the runtime's register requests.
//
// A read request names a stretch of a tag in the units the driver's read path
// expects: bits for BOOL, bytes for numbers (element index times width),
// bytes of the flattened string array for strings. The driver refuses a scope
// whose frames do not fit its 4096-byte buffers and a write whose request does
// not fit 1024 bytes or the one-byte counts, so the tool splits long stretches
// into several requests and batches that fit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "format/frame_limits.hpp"
#include "format/tag_limits.hpp"
#include "tag_set.hpp"

namespace kplc::cli {

struct ReadLimits {
    std::size_t max_requests = format::kAnnouncedReadRequests;  // per batch: what the driver announces
    std::size_t max_names = format::kMaxReadNames;  // per batch: the resolve reply fits one receive
    std::size_t frame_bytes = proto::kReceiveArea;
};

// One Reg of a read batch and where its bytes go.
struct ReadPart {
    std::size_t selection = 0;  // index of the selection it serves
    uint16_t reg_id = 0;
    uint32_t reg_addr = 0;
    uint32_t reg_nums = 0;
    std::size_t offset = 0;  // byte offset of its elements in the selection's buffer
    std::size_t bytes = 0;   // bytes the driver writes for it
};

struct ReadPlan {
    std::vector<std::vector<ReadPart>> batches;
    std::vector<std::size_t> buffer_bytes;  // per selection
    std::string error;
};

ReadPlan plan_reads(const TagSet &tags, std::span<const Selection> selections, const ReadLimits &limits = {});

// One kplc_write call. `data` has one spare byte at its end: the string writers
// append a fill byte to an odd-length text.
struct WritePart {
    uint16_t reg_id = 0;
    uint32_t reg_addr = 0;
    uint32_t reg_nums = 0;
    std::vector<uint8_t> data;
};

struct WritePlan {
    std::vector<WritePart> parts;
    std::string error;
};

// `values` holds one encoded element per element of `target`, starting at
// target.first (see encode_element).
WritePlan plan_write(const TagSet &tags, const Selection &target, std::span<const std::vector<uint8_t>> values);

}  // namespace kplc::cli
