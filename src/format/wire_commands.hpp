// The commands of the wire: the code a request carries in header bytes 10-11,
// the name a person reads, and what the PLC's reply to it carries. The driver
// sends them, the simulator answers them, the tool and the trace name them.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace kplc::wire {

enum class Command : uint16_t {
    FirstCatalogue = 0x0C2C,
    ProgramCatalogue = 0x0C25,
    SymbolResolve = 0x0C28,
    ReadByLocation = 0x1E09,
    WordWrite = 0x1E01,
    WordAreaBitWrite = 0x1E03,
    SetBit = 0x3200,
    ResetBit = 0x3300,
};

// What the reply to a command carries from its data offset on.
enum class ReplyData : uint8_t {
    Anything,   // first catalogue: any non-empty reply starts the link
    Catalogue,  // program catalogue: a count, then catalogue entries
    Items,      // symbol resolve: one resolve item per name
    Values,     // read by location: the words of every location entry
    Nothing,    // the writes: the reply only acknowledges
};

struct CommandRow {
    Command code;
    std::string_view name;  // lower case, as messages use it mid-sentence
    ReplyData reply;
};

inline constexpr std::array<CommandRow, 8> kCommands{{
    {Command::FirstCatalogue, "first catalogue", ReplyData::Anything},
    {Command::ProgramCatalogue, "program catalogue", ReplyData::Catalogue},
    {Command::SymbolResolve, "symbol resolve", ReplyData::Items},
    {Command::ReadByLocation, "read by location", ReplyData::Values},
    {Command::WordWrite, "word write", ReplyData::Nothing},
    {Command::WordAreaBitWrite, "word-area bit write", ReplyData::Nothing},
    {Command::SetBit, "set bit", ReplyData::Nothing},
    {Command::ResetBit, "reset bit", ReplyData::Nothing},
}};

// The row of a command code, or nullptr for a code no command has.
constexpr const CommandRow *command_row(uint16_t code) noexcept {
    for (const CommandRow &row : kCommands)
        if (static_cast<uint16_t>(row.code) == code) return &row;
    return nullptr;
}

constexpr bool is_command(uint16_t code) noexcept { return command_row(code) != nullptr; }

// The catalogue requests that start the link: fixed sequence numbers 0 and 1.
constexpr bool starts_link(uint16_t code) noexcept {
    return code == static_cast<uint16_t>(Command::FirstCatalogue) ||
           code == static_cast<uint16_t>(Command::ProgramCatalogue);
}

}  // namespace kplc::wire
