// kplc: reads and writes PLC tags by name through the kplc driver library,
// loading it and filling the runtime's records exactly as the panel runtime does.
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "commands.hpp"
#include "driver_api.hpp"
#include "driver_output.hpp"
#include "options.hpp"
#include "text.hpp"
#include "trace_proxy.hpp"
#include "work_folder.hpp"

namespace {

using namespace kplc::cli;

constexpr uint32_t kLoopback = 0x7F000001;
constexpr const char *kToolVersion = "0.1.0";

void on_signal(int) { g_interrupted = 1; }

void install_signals() {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: a blocked wait for the PLC returns at once
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    // A PLC that closes the connection must not end the tool through a send.
    std::signal(SIGPIPE, SIG_IGN);
}

int fail(int status, const std::string &message) {
    std::fprintf(stderr, "kplc: %s\n", message.c_str());
    return status;
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

    DriverOutput out;
    out.start();

    // The tag file: --tags, or the one the runtime would find in --workdir.
    const std::string source =
        !opts.tags.empty() ? opts.tags : cat(opts.workdir, "/", tag_file_name(opts.plc, opts.dev).substr(2));
    std::string contents;
    if (!read_file(source, contents, error)) return fail(kExitTag, error);
    const TagSet tags = TagSet::parse(contents, api->pase_str);
    out.drain();
    if (tags.tags().empty()) return fail(kExitTag, cat("tag file '", source, "' holds no tag definitions"));

    Context ctx{opts, tags, out};
    if (opts.command == Command::List) return run_list(ctx);

    std::vector<Selection> selections;
    if (opts.command != Command::Write && !resolve_names(tags, opts.args, selections)) return kExitTag;

    // With --trace the driver talks to the proxy on 127.0.0.1, so its address
    // (and the tag file name it forms from it) is the proxy's.
    std::unique_ptr<TraceProxy> proxy;
    Session::Endpoint endpoint{opts.plc, *opts.port, opts.timeout, opts.udp, opts.dev};
    if (opts.trace) {
        proxy = std::make_unique<TraceProxy>(opts.plc, *opts.port, opts.udp);
        if (!proxy->start(error)) return fail(kExitFailed, error);
        endpoint.addr = kLoopback;
        endpoint.port = proxy->port();
    }

    // The user's folder is used only when asked for and no proxy changes the name.
    WorkFolder folder;
    const bool own_folder = opts.workdir.empty() || opts.trace;
    const bool copy = own_folder || !opts.tags.empty();
    if (!folder.enter(own_folder ? std::string{} : opts.workdir, tag_file_name(endpoint.addr, endpoint.dev),
                      copy ? &contents : nullptr, error))
        return fail(kExitFailed, error);

    Session session(*api, endpoint);
    if (!session.open(error)) {
        out.drain();
        return fail(kExitFailed, error);
    }
    ctx.session = &session;
    ctx.limits.max_requests = session.batch_limit();
    out.drain();

    switch (opts.command) {
    case Command::Read: return run_read(ctx, selections);
    case Command::Write: return run_write(ctx);
    case Command::Watch: return run_watch(ctx, selections);
    default: return kExitUsage;
    }
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
    install_signals();
    return run(parsed.options);
}
