// Command line of the kplc tool.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kplc::cli {

// The shortest response time-out the tool accepts, in seconds.
inline constexpr uint16_t kMinTimeout = 1;

enum class Command { None, List, Read, Write, Watch, Check, Serve };

// How much of the driver's own diagnostic lines reaches standard error.
enum class Chatter { Quiet, Normal, Verbose };

struct Options {
    Command command = Command::None;
    std::vector<std::string> args;  // tag names, or NAME=VALUE for write

    std::string plc_text = "127.0.0.1";
    uint32_t plc = 0x7F000001;  // IPv4, first octet most significant (the runtime's _baud)
    std::optional<uint16_t> port;
    uint16_t dev = 0;
    std::string tags;     // tag file to use
    std::string workdir;  // run in this folder (its ./driver/ holds the tag files)
    std::string lib;      // driver library to load
    uint16_t timeout = 3; // response time-out, whole seconds (kMinTimeout at least)
    bool udp = false;
    bool trace = false;
    bool direct = false;  // the driver talks to the PLC itself, not through the relay
    uint32_t interval_ms = 500;
    std::optional<uint64_t> count;
    bool help = false;
    bool version = false;
    bool json = false;           // results as JSON
    bool install_tags = false;   // with --workdir and --tags: copy the tag file into DIR/driver/
    Chatter chatter = Chatter::Normal;
    std::string names_file;      // -f: more names (or NAME=VALUE) one per line; "-" for standard input
};

struct ParsedOptions {
    Options options;
    std::string error;  // set when the command line is not usable
};

// Options may stand anywhere; "--name value" and "--name=value" are both
// accepted; "--" ends the options.
ParsedOptions parse_options(std::span<const std::string_view> args);

// "a.b.c.d" (or "localhost") as the runtime's address number.
std::optional<uint32_t> parse_ipv4(std::string_view text);

// The lines of a names file (-f): blank lines and lines starting with '#' are
// skipped, blanks around each line dropped.
std::vector<std::string> names_in(std::string_view text);

// Splits "NAME=VALUE" at the first '=' that is not inside brackets.
std::optional<std::pair<std::string, std::string>> split_assignment(std::string_view arg);

extern const char *const kUsage;

}  // namespace kplc::cli
