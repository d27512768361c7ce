// kplc: reads and writes PLC tags by name through the kplc driver library,
// loading it and filling the runtime's records exactly as the panel runtime does.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "commands.hpp"
#include "driver_api.hpp"
#include "driver_output.hpp"
#include "options.hpp"
#include "serve.hpp"
#include "signals.hpp"
#include "text.hpp"
#include "trace_proxy.hpp"
#include "work_folder.hpp"

namespace {

using namespace kplc::cli;

constexpr uint32_t kLoopback = 0x7F000001;
constexpr const char *kToolVersion = "0.1.0";

int fail(int status, const std::string &message) {
    std::fprintf(stderr, "kplc: %s\n", message.c_str());
    return status;
}

// Reads a file the user named on the command line; `what` says what the user
// meant it to hold ("tag file", "names file").
bool read_named(const std::string &path, const char *what, std::string &text, std::string &error) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        error = cat(what, " '", path, "' is a directory");
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (in) text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (!in || in.bad()) {
        error = cat("cannot read ", what, " '", path, "': ", std::strerror(errno));
        return false;
    }
    return true;
}

// The names of the command line and of -f FILE (or standard input).
bool gather_names(const Options &opts, std::vector<std::string> &names, std::string &error) {
    names = opts.args;
    if (opts.names_file.empty()) return true;
    std::string text;
    if (opts.names_file == "-") {
        char buf[4096];
        for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, stdin)) > 0;) text.append(buf, n);
    } else if (!read_named(opts.names_file, "names file", text, error)) {
        return false;
    }
    const std::vector<std::string> more = names_in(text);
    names.insert(names.end(), more.begin(), more.end());
    if (names.empty()) error = cat("no tag names given (", opts.names_file, " holds none)");
    return !names.empty();
}

int run(const Options &opts) {
    std::string error;
    const auto api = load_driver(opts.lib, error);
    if (!api) return fail(kExitLibrary, cat("cannot load the driver library: ", error));
    if (opts.version) {
        PLC_DRV_INFO info{};
        api->driver_info(nullptr, &info);
        std::printf("kplc tool %s; driver %s: number %u, version %u\n", kToolVersion, api->path.c_str(),
                    static_cast<unsigned>(info.driver_no), static_cast<unsigned>(info.version));
        return kExitOk;
    }

    DriverOutput out(opts.chatter);
    out.start();

    std::string contents;
    if (opts.command == Command::Check) {
        if (!read_named(opts.args[0], "tag file", contents, error)) return fail(kExitTag, error);
        const int status = run_check(opts, opts.args[0], contents, api->pase_str, out.results());
        out.settle(false);
        return status;
    }

    // The tag file: --tags, or the one the runtime would find in --workdir.
    std::string source;
    if (std::error_code ec; std::filesystem::is_directory(opts.tags, ec))
        return fail(kExitTag, cat("tag file '", opts.tags, "' is a directory"));
    if (!pick_tag_file(opts.tags, opts.workdir, tag_file_name(opts.plc, opts.dev), opts.install_tags, source,
                       contents, error))
        return fail(opts.tags.empty() || error.starts_with("cannot read") ? kExitTag : kExitUsage, error);
    const TagSet tags = TagSet::parse(contents, api->pase_str);
    out.settle(tags.tags().empty());
    if (tags.tags().empty()) return fail(kExitTag, cat("tag file '", source, "' holds no tag definitions"));

    const TagSet unread = unread_tail(contents, api->pase_str);
    Context ctx{opts, tags, out, nullptr, nullptr, {}, {}, {}, &unread, source};
    if (opts.command == Command::List) return run_list(ctx);

    std::vector<Selection> selections;
    if (opts.command != Command::Serve) {
        if (!gather_names(opts, ctx.args, error)) return fail(kExitUsage, error);
        if (opts.command != Command::Write && !resolve_names(tags, ctx.args, selections, &unread, source)) return kExitTag;
    }

    // The driver talks to the relay on 127.0.0.1, which passes everything on
    // to the PLC and keeps the record that explains failures; the tag file
    // name the driver forms is therefore the relay's. With --direct the driver
    // talks to the PLC itself: two hops fewer per exchange, and failures told
    // by the driver's result code alone.
    const int connect_ms = std::max(500, opts.timeout * 1000 - 200);
    TraceProxy proxy(opts.plc, *opts.port, opts.udp, opts.trace, connect_ms);
    if (!opts.direct && !proxy.start(error)) return fail(kExitFailed, error);
    const Session::Endpoint endpoint = opts.direct
        ? Session::Endpoint{opts.plc, *opts.port, opts.timeout, opts.udp, opts.dev}
        : Session::Endpoint{kLoopback, proxy.port(), opts.timeout, opts.udp, opts.dev};

    WorkFolder folder;
    if (!folder.enter(tag_file_name(endpoint.addr, endpoint.dev), contents, error)) return fail(kExitFailed, error);

    Session session(*api, endpoint);
    if (!session.open(error)) {
        out.settle(true);
        return fail(kExitFailed, error);
    }
    ctx.session = &session;
    ctx.proxy = opts.direct ? nullptr : &proxy;
    ctx.limits.max_requests = session.batch_limit();
    out.settle(false);

    int status = kExitUsage;
    switch (opts.command) {
    case Command::Read: status = run_read(ctx, selections); break;
    case Command::Write: status = run_write(ctx); break;
    case Command::Watch: status = run_watch(ctx, selections); break;
    case Command::Serve: status = run_serve(ctx, api->pase_str); break;
    default: break;
    }
    return g_interrupted ? kExitInterrupted : status;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string_view> args(argv + 1, argv + argc);
    const ParsedOptions parsed = parse_options(args);
    if (parsed.options.help) {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    if (!parsed.error.empty()) {
        std::fprintf(stderr, "kplc: %s\nTry 'kplc --help'.\n", parsed.error.c_str());
        return kExitUsage;
    }
    start_signal_watch();
    return run(parsed.options);
}
