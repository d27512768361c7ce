#include "options.hpp"

#include "text.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>

namespace kplc::cli {

const char *const kUsage =
    "usage: kplc [options] list\n"
    "       kplc [options] read NAME|ID...\n"
    "       kplc [options] write NAME=VALUE...\n"
    "       kplc [options] watch NAME|ID... [--interval-ms N] [--count N]\n"
    "       kplc [--lib PATH] check FILE\n"
    "       kplc [options] serve        (JSON requests on stdin, one answer per line on stdout)\n"
    "\n"
    "Reads and writes PLC tags by name through the kplc driver, as the panel runtime does.\n"
    "\n"
    "options:\n"
    "  --plc ADDR         PLC IPv4 address (default 127.0.0.1)\n"
    "  --port N           PLC port (required for read, write and watch)\n"
    "  --dev N            device index: selects the tag file PLC<addr>_<N>.csv (default 0)\n"
    "  --tags FILE        tag definition file to use\n"
    "  --workdir DIR      take the tag file the runtime would use from DIR/driver/ (read only)\n"
    "  --install-tags     with --workdir and --tags: copy FILE into DIR/driver/ when that\n"
    "                     file does not exist yet (never replaces one)\n"
    "  --timeout S        response time-out in seconds, 1 at least (default 3)\n"
    "  --udp              talk to the PLC over UDP\n"
    "  --trace            print every request and reply in hex (on stderr)\n"
    "  --direct           the driver talks to the PLC itself, not through the tool's relay:\n"
    "                     faster, but a failure is told only by the driver's result code\n"
    "  --json             results as JSON (watch: one object per line)\n"
    "  -f FILE            more names (write: NAME=VALUE) from FILE, one per line; '-' reads stdin\n"
    "  -q, --quiet        never show the driver's diagnostic lines\n"
    "  -v, --verbose      show every diagnostic line of the driver\n"
    "  --lib PATH         driver library to load (default: libkplc.so next to the tool or of\n"
    "                     its build tree, else the installed libkplc.so.0)\n"
    "  --interval-ms N    watch: poll interval (default 500)\n"
    "  --count N          watch: stop after N polls\n"
    "  -h, --help         this text\n"
    "  --version          tool and driver version\n"
    "\n"
    "Names: as 'kplc list' shows them, or a tag id; an array element as Speed[3] or Grid[1,2];\n"
    "a range as Speed[2..4], a row as Grid[1].\n"
    "Values: numbers, 0/1 for BOOL, text for strings; arrays as comma lists (1,2,3);\n"
    "Speed[3]=7,8 writes elements 3 and 4.\n"
    "\n"
    "exit status: 0 success, 1 the driver failed or refused a request, 2 bad arguments or values,\n"
    "             3 unknown tag or unusable tag file, 4 the driver library could not be loaded,\n"
    "             5 cannot connect, 6 no answer from the PLC, 7 reply too short, 8 reply not usable,\n"
    "             130 interrupted. When names fail for different causes, the first name that\n"
    "             failed, in the order given, decides.\n";

namespace {

template <typename T>
std::optional<T> parse_number(std::string_view text, T min, T max) {
    uint64_t v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    if (v < static_cast<uint64_t>(min) || v > static_cast<uint64_t>(max)) return std::nullopt;
    return static_cast<T>(v);
}

std::optional<Command> command_of(std::string_view word) {
    if (word == "list") return Command::List;
    if (word == "read") return Command::Read;
    if (word == "write") return Command::Write;
    if (word == "watch") return Command::Watch;
    if (word == "check") return Command::Check;
    if (word == "serve") return Command::Serve;
    return std::nullopt;
}

}  // namespace

std::optional<uint32_t> parse_ipv4(std::string_view text) {
    if (text == "localhost") return 0x7F000001u;
    uint32_t addr = 0;
    for (int part = 0; part < 4; ++part) {
        const std::size_t dot = text.find('.');
        if ((part < 3) == (dot == std::string_view::npos)) return std::nullopt;
        const auto octet = parse_number<uint32_t>(text.substr(0, dot), 0, 255);
        if (!octet || dot == 0 || text.substr(0, dot).size() > 3) return std::nullopt;
        addr = addr << 8 | *octet;
        text.remove_prefix(dot == std::string_view::npos ? text.size() : dot + 1);
    }
    return addr;
}

std::vector<std::string> names_in(std::string_view text) {
    std::vector<std::string> out;
    while (!text.empty()) {
        const std::size_t lf = text.find('\n');
        std::string_view line = text.substr(0, lf);
        text.remove_prefix(lf == std::string_view::npos ? text.size() : lf + 1);
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
        while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) line.remove_suffix(1);
        if (!line.empty() && line.front() != '#') out.emplace_back(line);
    }
    return out;
}

std::optional<std::pair<std::string, std::string>> split_assignment(std::string_view arg) {
    int depth = 0;
    for (std::size_t i = 0; i < arg.size(); ++i) {
        if (arg[i] == '[') ++depth;
        else if (arg[i] == ']') --depth;
        else if (arg[i] == '=' && depth == 0 && i > 0)
            return std::pair{std::string(arg.substr(0, i)), std::string(arg.substr(i + 1))};
    }
    return std::nullopt;
}

ParsedOptions parse_options(std::span<const std::string_view> args) {
    ParsedOptions r;
    Options &o = r.options;
    bool options_done = false;
    bool watch_options = false;
    auto fail = [&r](std::string message) {
        r.error = std::move(message);
        return r;
    };

    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view arg = args[i];
        static constexpr std::string_view kShort[] = {"-h", "-q", "-v", "-f"};
        const bool is_short = std::find(std::begin(kShort), std::end(kShort), arg) != std::end(kShort);
        if (options_done || arg.size() < 2 || arg[0] != '-' || (arg[1] != '-' && !is_short)) {
            if (o.command == Command::None) {
                const auto cmd = command_of(arg);
                if (!cmd) return fail(cat("unknown command '", arg, "'"));
                o.command = *cmd;
            } else {
                o.args.emplace_back(arg);
            }
            continue;
        }
        if (arg == "--") {
            options_done = true;
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            o.help = true;
            continue;
        }
        if (arg == "-q" || arg == "--quiet" || arg == "-v" || arg == "--verbose") {
            o.chatter = arg == "-q" || arg == "--quiet" ? Chatter::Quiet : Chatter::Verbose;
            continue;
        }
        if (arg == "-f") {
            if (i + 1 >= args.size()) return fail("option -f needs a file name (or -)");
            o.names_file = args[++i];
            if (o.names_file.empty()) return fail("-f needs a file name (or -)");
            continue;
        }
        std::string_view name = arg;
        std::optional<std::string_view> value;
        if (const std::size_t eq = arg.find('='); eq != std::string_view::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
        }
        static constexpr std::string_view kFlags[] = {"--udp", "--trace", "--version", "--json", "--install-tags",
                                                      "--direct"};
        if (std::find(std::begin(kFlags), std::end(kFlags), name) != std::end(kFlags)) {
            if (value) return fail(cat("option ", name, " takes no value"));
            if (name == "--udp") o.udp = true;
            else if (name == "--trace") o.trace = true;
            else if (name == "--json") o.json = true;
            else if (name == "--install-tags") o.install_tags = true;
            else if (name == "--direct") o.direct = true;
            else o.version = true;
            continue;
        }
        static constexpr std::string_view kValued[] = {"--plc",     "--port", "--dev",         "--timeout",
                                                       "--tags",    "--lib",  "--interval-ms", "--count",
                                                       "--workdir"};
        if (std::find(std::begin(kValued), std::end(kValued), name) == std::end(kValued))
            return fail(cat("unknown option ", name));
        if (!value) {
            if (i + 1 >= args.size()) return fail(cat("option ", name, " needs a value"));
            value = args[++i];
        }
        const std::string v(*value);
        if (name == "--plc") {
            const auto addr = parse_ipv4(v);
            if (!addr) return fail(cat("--plc: '", v, "' is not an IPv4 address"));
            o.plc = *addr;
            o.plc_text = v == "localhost" ? "127.0.0.1" : v;
        } else if (name == "--port") {
            o.port = parse_number<uint16_t>(v, 1, 65535);
            if (!o.port) return fail(cat("--port: '", v, "' is not a port number (1-65535)"));
        } else if (name == "--dev") {
            const auto dev = parse_number<uint16_t>(v, 0, 65535);
            if (!dev) return fail(cat("--dev: '", v, "' is not a device index (0-65535)"));
            o.dev = *dev;
        } else if (name == "--timeout") {
            // The driver takes 0 for "do not wait": every reply would race
            // the receive, and a healthy PLC would fail at random.
            const auto t = parse_number<uint16_t>(v, kMinTimeout, 65535);
            if (!t) return fail(cat("--timeout: '", v, "' is not a number of seconds (", kMinTimeout, "-65535)"));
            o.timeout = *t;
        } else if (name == "--tags") {
            if (v.empty()) return fail("--tags needs a file name");
            o.tags = v;
        } else if (name == "--workdir") {
            if (v.empty()) return fail("--workdir needs a folder");
            o.workdir = v;
        } else if (name == "--lib") {
            if (v.empty()) return fail("--lib needs a file name");
            o.lib = v;
        } else if (name == "--interval-ms") {
            const auto ms = parse_number<uint32_t>(v, 1, 3600000);
            if (!ms) return fail(cat("--interval-ms: '", v, "' is not a number of milliseconds (1-3600000)"));
            o.interval_ms = *ms;
            watch_options = true;
        } else if (name == "--count") {
            o.count = parse_number<uint64_t>(v, 1, std::numeric_limits<uint64_t>::max());
            if (!o.count) return fail(cat("--count: '", v, "' is not a positive number"));
            watch_options = true;
        }
    }

    if (o.help || o.version) return r;
    if (o.command == Command::None) return fail("no command given");
    if (watch_options && o.command != Command::Watch) return fail("--interval-ms and --count belong to watch");
    if (o.command == Command::Check) {
        if (o.args.size() != 1) return fail("check takes one tag file");
        return r;
    }
    if (o.tags.empty() && o.workdir.empty()) return fail("no tag file: give --tags FILE (or --workdir DIR)");
    if (o.direct && o.trace) return fail("--trace shows the relay's traffic, which --direct leaves out");
    if (o.install_tags && (o.tags.empty() || o.workdir.empty()))
        return fail("--install-tags needs both --workdir DIR and --tags FILE");
    if (o.command == Command::List || o.command == Command::Serve) {
        if (!o.args.empty() || !o.names_file.empty())
            return fail(o.command == Command::List ? "list takes no arguments" : "serve takes no arguments");
        if (o.command == Command::Serve && !o.port) return fail("no PLC port: give --port N");
        return r;
    }
    if (o.args.empty() && o.names_file.empty()) return fail("no tag names given");
    if (!o.port) return fail("no PLC port: give --port N");
    if (o.command == Command::Write)
        for (const std::string &a : o.args)
            if (!split_assignment(a)) return fail(cat("write expects NAME=VALUE, got '", a, "'"));
    return r;
}

}  // namespace kplc::cli
