// The read pass without its socket: which requests of a batch one scope reads,
// the two request frames of the pass, and the decoding of the values.
//
// A pass reads every request whose tag lives in one scope (global names, or
// the names local to one PLC program) with two exchanges:
//   1. symbol resolve (0x0C28): one symbolic name per element; the PLC answers
//      with one resolve item per name (area code and location);
//   2. read by location (0x1E09): one 8-byte location entry per element; the
//      PLC answers with the values back to back from offset 14.
// An element is one array element, one bit of a BOOL stretch, or one string
// element (a "chunk": the part of a string element the request covers).
//
// Everything here works on caller-owned fixed storage: a pass allocates nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "state/process_state.hpp"
#include "format/tag.hpp"
#include "format/types.hpp"
#include "kplc/records.h"
#include "kplc/tags.h"
#include "protocol/frame.hpp"

namespace kplc::proto::read {

// Request and receive buffers of the read path.
inline constexpr std::size_t kFrameSize = kReceiveArea;
// Requests of one batch.
inline constexpr std::size_t kMaxBatch = format::kMaxReadRequests;
using proto::kLocationEntrySize;
using proto::kLocationHeaderSize;
static_assert(kFrameSize == proto::kReceiveArea);
// The most elements one read by location request can carry in kFrameSize bytes.
// It bounds every per-element table of a pass.
inline constexpr std::size_t kMaxElements = format::kMaxReadElements;
inline constexpr uint32_t kMaxWordCount = format::kMaxEntryWords;
inline constexpr std::size_t kMinResolveResponse = format::kMinResolveReply;
inline constexpr std::size_t kMinValueResponse = format::kMinValueReply;

// Why a request is not read. Every refusal leaves the runtime's buffer
// untouched and sets the request's error to ER_INVALID.
enum class Refusal : uint8_t {
    None,
    UnknownTag,          // regId outside 1..id_max
    NoBuffer,            // the runtime's value pointer is null
    UnsupportedWidth,    // 8-bit types and STRING2: no known word count or decoding
    NotOneElement,       // a scalar, structure or single string covering more than itself
    EmptyStringElement,  // string byte length leaves no character per element
    ChunkTooWide,        // a string chunk needs more words than one entry can ask for
    BadName,             // a name over 255 code units, or an array dimension of size 0
    ScopeTooLarge,       // the scope's requests do not fit one pair of 4096-byte exchanges
};

const char *describe(Refusal refusal) noexcept;

// How one request of a batch is read by the pass of its scope. No member has
// a default of its own, so that a pass's table of 256 is not cleared on every
// pass: RequestPlan{} is the blank plan.
struct RequestPlan {
    const kplc_tag_str *tag;
    bool in_scope;           // belongs to (is read or reported by) this pass
    Refusal refusal;         // None (0) when it is read
    uint32_t first;          // first element index; strings: first string element
    uint32_t count;          // elements = names = location entries
    uint32_t element_size;   // strings: characters per element, terminator excluded
    uint32_t offset;         // strings: byte position inside the first element
    uint32_t limit;          // strings: most bytes the runtime buffer takes
    uint16_t first_entry;    // index of the request's first location entry

    [[nodiscard]] bool reads() const noexcept { return in_scope && refusal == Refusal::None; }
    [[nodiscard]] bool is_string() const noexcept { return element_size != 0; }
};

// One pass over a batch. The tables are left uninitialised: plan_pass writes
// the first `size` requests and the first `symbol_bytes` symbol bytes, and the
// read by location request writes the bit number of every BOOL element, before
// anything reads them. (Clearing them cost more than all the rest of a small read.)
struct PassPlan {
    int32_t scope = kGlobalScope;
    std::size_t size = 0;                        // requests in the batch
    std::array<RequestPlan, kMaxBatch> requests;
    std::size_t reading = 0;                     // requests read by this pass
    std::size_t elements = 0;                    // names sent = location entries
    std::size_t refused = 0;                     // requests in scope that are not read
    uint16_t scopes = 0;                         // every scope the batch uses (scope_bit)
    // The symbol entries of the resolve request, formed once while the pass
    // is planned (the planner needs their size to refuse a scope that does
    // not fit) and copied into the request as they stand.
    std::size_t symbol_bytes = 0;
    std::array<uint8_t, kFrameSize> symbols;
    // Bit number of each BOOL element, by location entry, taken from the
    // resolve response while the read by location request is built.
    std::array<uint8_t, kMaxElements> bit_numbers;
};

using format::elements_in_stretch;

// The bit of `scope` in a set of scopes: bit 0 the global names, bit 1 + p
// program p. Modes beyond program 14 (never read) have none.
inline uint16_t scope_bit(int32_t scope) noexcept {
    return scope >= -1 && scope <= 14 ? static_cast<uint16_t>(1U << (scope + 1)) : 0;
}

// Words asked for element m of a request (the location entry's word count).
inline uint32_t element_words(const RequestPlan &request, uint32_t m) noexcept {
    // A string chunk asks for its bytes plus at least one more (the words
    // beyond the covered bytes are skipped when decoding).
    if (request.is_string())
        return format::string_chunk_words(m == 0 ? request.element_size - request.offset : request.element_size);
    return format::words_per_element(request.tag->bits);  // only 1, 16, 32 and 64-bit tags are read
}

// Sets a program-local tag's mode to the catalogue id of its program, matched
// by name; the last matching entry wins, an unknown program keeps its mode.
void map_program(kplc_tag_str &tag, std::span<const Local_MSG> catalogue) noexcept;

// Checks one request against its tag and fills `out` with the elements it
// covers. Returns the refusal (None when it can be read).
Refusal shape_request(const kplc_tag_str &tag, const Reg &reg, const DrvRWBuf &buf, RequestPlan &out) noexcept;

// Builds the plan of the pass for `scope`: maps program-local tags through the
// catalogue (the new mode stays in the table), shapes every request of the
// scope and refuses those that cannot be read. Requests whose regId names no
// tag belong to no scope; the global pass, which every batch runs first,
// reports them. Records in plan.scopes which scopes the batch uses (the
// global one for unknown tag ids). The arrays hold plan.size == regs.size() entries (at most
// kMaxBatch, each buffer pointer non-null).
void plan_pass(PassPlan &plan, std::span<kplc_tag_str> table, std::span<const Reg> regs,
               std::span<DrvRWBuf *const> bufs, int32_t scope, std::span<const Local_MSG> catalogue) noexcept;

// Writes the UTF-8 name of element m of a request into `out`; nullopt when it
// cannot be formed.
std::optional<std::size_t> element_utf8_name(std::span<char> out, const RequestPlan &request, uint32_t m) noexcept;

// The symbol resolve request of the pass. Returns its length, 0 if it does
// not fit `out` (plan_pass has already refused scopes that do not fit 4096).
std::size_t build_resolve_request(const PassPlan &plan, std::span<uint8_t> out, uint16_t sequence) noexcept;

// The read by location request, built from the resolve response; records the
// bit numbers of BOOL elements in the plan. Returns its length, or 0 when the
// response lacks a byte the request needs (a response cut short).
std::size_t build_location_request(PassPlan &plan, std::span<const uint8_t> response, std::span<uint8_t> out,
                                   uint16_t sequence) noexcept;

// Decodes the value response into the runtime buffers and sets each read
// request's error. Returns ER_OK, or ER_TIMEOUT at the first element that was
// not received in full (that request's error is ER_TIMEOUT; requests before it
// keep their values and ER_OK).
unsigned decode_values(const PassPlan &plan, std::span<const uint8_t> response,
                       std::span<DrvRWBuf *const> bufs) noexcept;

}  // namespace kplc::proto::read
