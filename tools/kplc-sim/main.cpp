// kplc-sim: a PLC simulator for the kplc driver.
//
//   kplc-sim --tags FILE [--listen ADDR] [--port N] [--udp] [--trace] [--quiet]
//            [--state FILE] [--record CAPTURE [--overwrite]]
//            [--close-after N] [--delay-ms N] [--split] [--truncate N]
//            [--garbage] [--silent] [--refuse]
//   kplc-sim --replay CAPTURE [--on-mismatch close|silent|model] [--replay-timing]
//            [--tags FILE] [--listen ADDR] [--port N] [--udp] [--record CAPTURE [--overwrite]]
//
// It serves the variables of a tag file (all zero at start, or as --state left
// them) and prints one line "kplc-sim listening on ADDR:PORT" on standard
// output once it accepts requests, then runs until SIGINT, SIGTERM or SIGHUP,
// saving the --state file on each of them. Every
// option takes its value as "--option VALUE" or "--option=VALUE". Connections
// and malformed requests are logged on standard error, one line each.
#include <arpa/inet.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#ifdef KPLC_SIM_CAPTURE
#include "capture.hpp"
#else
// Built without libpcap: the options are parsed, and refused at start.
namespace kplc::sim {
enum class OnMismatch { Close, Silent, Model };
struct ReplayOptions {
    OnMismatch on_mismatch = OnMismatch::Close;
    bool timing = false;
};
}  // namespace kplc::sim
#endif
#include "plc.hpp"
#include "server.hpp"

#ifndef KPLC_SIM_VERSION
#define KPLC_SIM_VERSION "0.1.0"
#endif

namespace {

constexpr const char *kUsage =
    "usage: kplc-sim --tags FILE [options]\n"
    "       kplc-sim --replay CAPTURE [options]\n"
    "  --tags FILE        tag definition file, the driver's format\n"
    "  --listen ADDR      IPv4 address to listen on (default 127.0.0.1)\n"
    "  --port N           port to listen on (default 0: any free port)\n"
    "  --udp              serve datagrams instead of a TCP stream\n"
    "  --state FILE       load the memory from FILE at start (when it exists), save it there on exit\n"
    "                     (SIGINT, SIGTERM or SIGHUP); its folder must be writable at start\n"
    "  --trace            print each request ('> ') and reply ('< ') in hex\n"
    "  --quiet            no log of connections and malformed requests\n"
    "  --version          print the version and exit\n"
    "capture:\n"
    "  --replay CAPTURE   answer as the PLC in CAPTURE (pcap or pcapng) did\n"
    "  --on-mismatch WHAT a request the capture does not hold: close (default), silent, or model\n"
    "                     (answer from --tags)\n"
    "  --replay-timing    keep the recorded time between each request and its reply\n"
    "  --record CAPTURE   write every conversation served to CAPTURE (pcap); a file that exists\n"
    "                     is refused unless --overwrite is given\n"
    "  --overwrite        let --record replace an existing file (never --tags, --replay or --state)\n"
    "misbehaviour:\n"
    "  --close-after N    close a connection after answering N requests (TCP)\n"
    "  --delay-ms N       wait N milliseconds before each reply\n"
    "  --split            send each reply in two parts, 50 ms apart\n"
    "  --truncate N       send only the first N bytes of each reply\n"
    "  --garbage          send random bytes instead of each reply\n"
    "  --silent           never answer\n"
    "  --refuse           accept connections and close them at once (TCP)\n";

unsigned long number(std::string_view option, const std::string &text, unsigned long max) {
    char *end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value > max) {
        throw std::invalid_argument(std::string(option) + ": not a number in 0.." + std::to_string(max) + ": " + text);
    }
    return value;
}

struct Command {
    std::string tags;
    std::string state;
    std::string replay;
    std::string record;
    bool quiet = false;
    bool overwrite = false;
    kplc::sim::ReplayOptions replay_options;
    bool replay_option_given = false;
    kplc::sim::ServerOptions server;
};

// Pairs of options that ask for opposite things; each is refused with a reason.
void check_conflicts(const Command &cmd, const std::set<std::string> &given) {
    const auto has = [&](const char *o) { return given.count(o) != 0; };
    const std::vector<std::pair<std::vector<const char *>, const char *>> rules = {
        {{"--silent", "--delay-ms", "--split", "--truncate", "--garbage", "--close-after", "--refuse"},
         "--silent never answers"},
        {{"--refuse", "--delay-ms", "--split", "--truncate", "--garbage", "--close-after"},
         "--refuse closes every connection before a request"},
    };
    for (const auto &[options, why] : rules) {
        if (!has(options[0])) continue;
        for (std::size_t i = 1; i < options.size(); ++i) {
            if (has(options[i])) {
                throw std::invalid_argument(std::string(options[0]) + " and " + options[i] + " contradict: " + why);
            }
        }
    }
    for (const char *o : {"--refuse", "--close-after"}) {
        if (cmd.server.udp && has(o)) throw std::invalid_argument(std::string(o) + " needs TCP; --udp has no connections");
    }
    if (cmd.replay.empty()) {
        for (const char *o : {"--on-mismatch", "--replay-timing"}) {
            if (has(o)) throw std::invalid_argument(std::string(o) + " needs --replay");
        }
        if (cmd.tags.empty()) throw std::invalid_argument("--tags FILE is required (or --replay CAPTURE)");
    }
    if (has("--overwrite") && cmd.record.empty()) throw std::invalid_argument("--overwrite needs --record");
    if (!cmd.replay.empty()) {
        for (const char *o : {"--delay-ms", "--split", "--truncate", "--garbage", "--silent", "--refuse", "--close-after"}) {
            if (has(o)) {
                throw std::invalid_argument(std::string(o) + " and --replay contradict: the capture decides how the PLC answers");
            }
        }
        if (cmd.replay_options.on_mismatch == kplc::sim::OnMismatch::Model && cmd.tags.empty()) {
            throw std::invalid_argument("--on-mismatch model answers from a tag file: give --tags FILE");
        }
    }
    if (!cmd.state.empty() && cmd.tags.empty()) throw std::invalid_argument("--state needs --tags: it holds that file's memory");
}

Command parse(int argc, char **argv) {
    Command cmd;
    std::set<std::string> given;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::optional<std::string> inline_value;
        if (const auto eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            inline_value = arg.substr(eq + 1);
            arg.resize(eq);
        }
        const auto value = [&]() -> std::string {
            if (inline_value) return *std::exchange(inline_value, std::nullopt);
            if (i + 1 >= argc) throw std::invalid_argument(arg + " needs a value");
            return argv[++i];
        };
        if (!given.insert(arg).second && arg != "--trace") throw std::invalid_argument(arg + " given twice");
        auto &s = cmd.server;
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (arg == "--version") {
            std::printf("kplc-sim %s\n", KPLC_SIM_VERSION);
            std::exit(0);
        } else if (arg == "--tags") {
            cmd.tags = value();
        } else if (arg == "--listen") {
            s.listen = value();
        } else if (arg == "--port") {
            s.port = static_cast<uint16_t>(number(arg, value(), 65535));
        } else if (arg == "--udp") {
            s.udp = true;
        } else if (arg == "--trace") {
            s.trace = true;
        } else if (arg == "--quiet") {
            cmd.quiet = true;
        } else if (arg == "--state") {
            cmd.state = value();
        } else if (arg == "--replay") {
            cmd.replay = value();
        } else if (arg == "--record") {
            cmd.record = value();
        } else if (arg == "--overwrite") {
            cmd.overwrite = true;
        } else if (arg == "--on-mismatch") {
            const std::string what = value();
            using kplc::sim::OnMismatch;
            if (what == "close") cmd.replay_options.on_mismatch = OnMismatch::Close;
            else if (what == "silent") cmd.replay_options.on_mismatch = OnMismatch::Silent;
            else if (what == "model") cmd.replay_options.on_mismatch = OnMismatch::Model;
            else throw std::invalid_argument("--on-mismatch: close, silent or model, not " + what);
        } else if (arg == "--replay-timing") {
            cmd.replay_options.timing = true;
        } else if (arg == "--close-after") {
            s.close_after = static_cast<unsigned>(number(arg, value(), std::numeric_limits<unsigned>::max()));
        } else if (arg == "--delay-ms") {
            s.delay_ms = static_cast<unsigned>(number(arg, value(), std::numeric_limits<int>::max()));
        } else if (arg == "--split") {
            s.split = true;
        } else if (arg == "--truncate") {
            s.truncate = number(arg, value(), std::numeric_limits<unsigned>::max());
        } else if (arg == "--garbage") {
            s.garbage = true;
        } else if (arg == "--silent") {
            s.silent = true;
        } else if (arg == "--refuse") {
            s.refuse = true;
        } else {
            throw std::invalid_argument("unknown option " + arg);
        }
        if (inline_value) throw std::invalid_argument(arg + " takes no value");
    }
    check_conflicts(cmd, given);
    return cmd;
}

std::string endpoint(const sockaddr_in &a) {
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
    return std::string(buf) + ":" + std::to_string(ntohs(a.sin_port));
}

std::string hex(std::span<const uint8_t> bytes, std::size_t max) {
    std::string out;
    char b[4];
    for (std::size_t i = 0; i < bytes.size() && i < max; ++i) {
        std::snprintf(b, sizeof b, i == 0 ? "%02X" : " %02X", static_cast<unsigned>(bytes[i]));
        out += b;
    }
    if (bytes.size() > max) out += " ...";
    return out;
}

// The log on standard error: one line per connection opened and closed (per
// new sender for UDP), one per request the PLC refused as malformed or of an
// unknown command. Runs on the server thread.
class Log {
public:
    void tap(const kplc::sim::Event &e) {
        using Kind = kplc::sim::Event::Kind;
        switch (e.kind) {
            case Kind::Open:
                std::fprintf(stderr, "kplc-sim: connection %llu from %s\n", static_cast<unsigned long long>(e.connection),
                             endpoint(e.client).c_str());
                break;
            case Kind::Close:
                std::fprintf(stderr, "kplc-sim: connection %llu closed (%s)\n", static_cast<unsigned long long>(e.connection),
                             e.reason);
                break;
            case Kind::Request:
                if (e.udp && senders_.insert(endpoint(e.client)).second) {
                    std::fprintf(stderr, "kplc-sim: datagrams from %s\n", endpoint(e.client).c_str());
                }
                request_.assign(e.bytes.begin(), e.bytes.end());
                replied_ = false;
                break;
            case Kind::Reply: {
                // The first segment of the answer holds the status.
                const auto reply_status = kplc::wire::status_of(e.bytes);
                if (replied_ || !reply_status) break;
                replied_ = true;
                const unsigned status = *reply_status;
                if (status == kplc::sim::kStatusMalformed || status == kplc::sim::kStatusUnknownCommand) {
                    std::fprintf(stderr, "kplc-sim: connection %llu: %s request from %s: %s\n",
                                 static_cast<unsigned long long>(e.connection),
                                 status == kplc::sim::kStatusMalformed ? "malformed" : "unknown command in",
                                 endpoint(e.client).c_str(), hex(request_, 32).c_str());
                }
                break;
            }
        }
        std::fflush(stderr);
    }

private:
    std::set<std::string> senders_;
    std::vector<uint8_t> request_;
    bool replied_ = true;
};

// Two names of one file (a link, "./x" and "x") have one device and inode.
bool same_file(const std::string &a, const std::string &b) {
    struct stat x{}, y{};
    if (a.empty() || b.empty() || ::stat(a.c_str(), &x) != 0 || ::stat(b.c_str(), &y) != 0) return false;
    return x.st_dev == y.st_dev && x.st_ino == y.st_ino;
}

// The files the simulator writes, checked before it serves: none of them is a
// file it reads, --record replaces a file only with --overwrite, and the
// --state file's folder takes files, so a session's values are not lost at
// the end.
void check_files(const Command &cmd) {
    const std::pair<const char *, const std::string *> read[] = {{"--tags", &cmd.tags}, {"--replay", &cmd.replay}};
    if (!cmd.record.empty()) {
        for (const auto &[option, path] : read) {
            if (same_file(cmd.record, *path)) {
                throw std::runtime_error("--record " + cmd.record + " is the " + option + " file; record into another file");
            }
        }
        if (same_file(cmd.record, cmd.state)) throw std::runtime_error("--record " + cmd.record + " is the --state file");
        struct stat st{};
        if (!cmd.overwrite && ::lstat(cmd.record.c_str(), &st) == 0) {
            throw std::runtime_error("--record " + cmd.record + " exists; record into another file, or add --overwrite to replace it");
        }
    }
    if (cmd.state.empty()) return;
    for (const auto &[option, path] : read) {
        if (same_file(cmd.state, *path)) {
            throw std::runtime_error("--state " + cmd.state + " is the " + option + " file; the state is saved over it at exit");
        }
    }
    const std::filesystem::path folder = std::filesystem::path(cmd.state).parent_path();
    const std::string where = folder.empty() ? "." : folder.string();
    if (::access(where.c_str(), W_OK | X_OK) != 0) {
        throw std::runtime_error("--state " + cmd.state + ": cannot save in " + where + ": " + std::strerror(errno));
    }
    if (std::filesystem::is_directory(cmd.state)) throw std::runtime_error("--state " + cmd.state + " is a directory");
}

#ifdef KPLC_SIM_CAPTURE
// In --on-mismatch model, the tag file's memory follows every request the
// capture answered with status 0, so that a value written through a recorded
// exchange reads back from the model too. Reads and resolves leave the memory
// as it is, so every accepted request can go through.
bool accepted(const kplc::sim::Answer &answer) {
    return answer.kind == kplc::sim::Answer::Kind::Reply && answer.bytes.size() >= 14 && answer.bytes[10] == 0 &&
           answer.bytes[11] == 0;
}
#endif

void save_state(kplc::sim::Plc &plc, const std::string &path) {
    // Written beside the old file and renamed over it, so a crash while
    // saving never leaves half a state.
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << plc.save_state();
        out.close();
        if (!out) throw std::runtime_error("cannot write state file " + temporary);
    }
    std::filesystem::rename(temporary, path);
}

}  // namespace

int main(int argc, char **argv) {
    Command cmd;
    try {
        cmd = parse(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "kplc-sim: %s\nTry 'kplc-sim --help'.\n", e.what());
        return 2;
    }
    try {
        auto plc = cmd.tags.empty() ? kplc::sim::Plc("") : kplc::sim::Plc::from_file(cmd.tags);
        for (const auto &w : plc.warnings()) std::fprintf(stderr, "kplc-sim: warning: %s\n", w.c_str());
        if (!cmd.tags.empty() && plc.tags().tags().empty()) throw std::runtime_error("no tag definitions in " + cmd.tags);
        check_files(cmd);
        if (!cmd.state.empty() && std::filesystem::exists(cmd.state)) {
            std::ifstream in(cmd.state);
            try {
                plc.load_state(in);
            } catch (const std::exception &e) {
                throw std::runtime_error("state file " + cmd.state + ": " + e.what());
            }
        }

#ifndef KPLC_SIM_CAPTURE
        if (!cmd.replay.empty() || !cmd.record.empty()) {
            throw std::runtime_error("this kplc-sim was built without libpcap: no --replay or --record");
        }
        Log log;
        kplc::sim::ServerHooks hooks;
        hooks.tap = [&](const kplc::sim::Event &e) {
            if (!cmd.quiet) log.tap(e);
        };
#else
        std::unique_ptr<kplc::sim::Replay> replay;
        if (!cmd.replay.empty()) {
            replay = std::make_unique<kplc::sim::Replay>(cmd.replay, cmd.replay_options);
            std::fprintf(stderr, "kplc-sim: replay: %zu requests from %s (%zu TCP connections, %zu datagrams)\n",
                         replay->exchanges(), cmd.replay.c_str(), replay->tcp_connections(), replay->udp_exchanges());
            if (replay->tcp_connections() == 0 && !cmd.server.udp) {
                cmd.server.udp = true;
                std::fprintf(stderr, "kplc-sim: replay: the capture holds datagrams only; serving UDP\n");
            }
        }
        std::unique_ptr<kplc::sim::Recorder> recorder;
        if (!cmd.record.empty()) recorder = std::make_unique<kplc::sim::Recorder>(cmd.record);
        Log log;

        kplc::sim::ServerHooks hooks;
        const bool model = cmd.replay_options.on_mismatch == kplc::sim::OnMismatch::Model;
        if (replay) {
            hooks.respond = [&replay, &plc, model](std::span<const uint8_t> request) {
                auto answer = replay->respond(request);
                if (model && answer && accepted(*answer)) plc.handle(request);
                return answer;
            };
        }
        hooks.tap = [&](const kplc::sim::Event &e) {
            if (recorder) recorder->tap(e);
            if (!cmd.quiet) log.tap(e);
        };
#endif

        // The signals are taken by sigwait below; block them before the server
        // thread starts so that it inherits the mask and never receives them.
        sigset_t stop_signals;
        sigemptyset(&stop_signals);
        sigaddset(&stop_signals, SIGINT);
        sigaddset(&stop_signals, SIGTERM);
        sigaddset(&stop_signals, SIGHUP);  // the terminal closed
        pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

        kplc::sim::Server server(plc, cmd.server, std::move(hooks));
        server.start();
        std::printf("kplc-sim listening on %s:%u\n", cmd.server.listen.c_str(), static_cast<unsigned>(server.port()));
        std::fflush(stdout);

        int signal = 0;
        sigwait(&stop_signals, &signal);
        server.stop();
#ifdef KPLC_SIM_CAPTURE
        if (replay) {
            std::fprintf(stderr, "kplc-sim: replay: %zu requests answered from the capture, %zu matched none\n",
                         replay->matched(), replay->mismatched());
        }
#endif
        if (!cmd.state.empty()) {
            save_state(plc, cmd.state);
            if (!cmd.quiet) std::fprintf(stderr, "kplc-sim: state saved to %s\n", cmd.state.c_str());
        }
        return 0;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "kplc-sim: %s\n", e.what());
        return 1;
    }
}
