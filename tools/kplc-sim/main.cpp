// kplc-sim: a PLC simulator for the kplc driver.
//
//   kplc-sim --tags FILE [--listen ADDR] [--port N] [--udp] [--trace]
//            [--close-after N] [--delay-ms N] [--split] [--truncate N]
//            [--garbage] [--silent] [--refuse]
//
// It serves the variables of a tag file (all zero at start) and prints one line
// "kplc-sim listening on ADDR:PORT" once it accepts requests, then runs until
// SIGINT or SIGTERM.
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>

#include "plc.hpp"
#include "server.hpp"

namespace {

constexpr const char *kUsage =
    "usage: kplc-sim --tags FILE [options]\n"
    "  --tags FILE        tag definition file, the driver's format (required)\n"
    "  --listen ADDR      IPv4 address to listen on (default 127.0.0.1)\n"
    "  --port N           port to listen on (default 0: any free port)\n"
    "  --udp              serve datagrams instead of a TCP stream\n"
    "  --trace            print each request ('> ') and reply ('< ') in hex\n"
    "misbehaviour:\n"
    "  --close-after N    close a connection after answering N requests (TCP)\n"
    "  --delay-ms N       wait N milliseconds before each reply\n"
    "  --split            send each reply in two parts, 50 ms apart\n"
    "  --truncate N       send only the first N bytes of each reply\n"
    "  --garbage          send random bytes instead of each reply\n"
    "  --silent           never answer\n"
    "  --refuse           accept connections and close them at once (TCP)\n";

unsigned long number(std::string_view option, const char *text, unsigned long max) {
    char *end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text == '\0' || *text == '-' || *end != '\0' || errno != 0 || value > max) {
        throw std::invalid_argument(std::string(option) + ": not a number in 0.." + std::to_string(max) + ": " + text);
    }
    return value;
}

struct Command {
    std::string tags;
    kplc::sim::ServerOptions server;
};

Command parse(int argc, char **argv) {
    Command cmd;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const auto value = [&]() -> const char * {
            if (i + 1 >= argc) throw std::invalid_argument(std::string(arg) + " needs a value");
            return argv[++i];
        };
        auto &s = cmd.server;
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
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
            throw std::invalid_argument("unknown option " + std::string(arg));
        }
    }
    if (cmd.tags.empty()) throw std::invalid_argument("--tags FILE is required");
    return cmd;
}

}  // namespace

int main(int argc, char **argv) {
    Command cmd;
    try {
        cmd = parse(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "kplc-sim: %s\n%s", e.what(), kUsage);
        return 2;
    }
    try {
        auto plc = kplc::sim::Plc::from_file(cmd.tags);
        for (const auto &w : plc.warnings()) std::fprintf(stderr, "kplc-sim: warning: %s\n", w.c_str());
        if (plc.tags().tags().empty()) throw std::runtime_error("no tag definitions in " + cmd.tags);

        // The signals are taken by sigwait below; block them before the server
        // thread starts so that it inherits the mask and never receives them.
        sigset_t stop_signals;
        sigemptyset(&stop_signals);
        sigaddset(&stop_signals, SIGINT);
        sigaddset(&stop_signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

        kplc::sim::Server server(plc, cmd.server);
        server.start();
        std::printf("kplc-sim listening on %s:%u\n", cmd.server.listen.c_str(), static_cast<unsigned>(server.port()));
        std::fflush(stdout);

        int signal = 0;
        sigwait(&stop_signals, &signal);
        server.stop();
        return 0;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "kplc-sim: %s\n", e.what());
        return 1;
    }
}
