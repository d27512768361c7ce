// The tool's commands.
#pragma once

#include <string>
#include <vector>

#include "driver_api.hpp"
#include "driver_output.hpp"
#include "exit_status.hpp"
#include "options.hpp"
#include "plan.hpp"
#include "signals.hpp"
#include "tag_set.hpp"
#include "trace_proxy.hpp"

namespace kplc::cli {

struct Context {
    const Options &opts;
    const TagSet &tags;
    DriverOutput &out;
    Session *session = nullptr;  // null for list and check
    TraceProxy *proxy = nullptr; // the relay between driver and PLC, whose record explains failures
    ReadLimits limits{};
    std::vector<std::string> args;  // the command's names (or NAME=VALUE), -f included
    std::vector<TrafficEvent> between;  // what the relay saw between two calls (the PLC closing)
    const TagSet *unread = nullptr;     // the tag file's last line when no line feed ends it
    std::string source;                 // the tag file's name
};

int run_list(Context &ctx);
int run_read(Context &ctx, const std::vector<Selection> &selections);
int run_write(Context &ctx);
int run_watch(Context &ctx, const std::vector<Selection> &selections);
// `contents` of the tag file `path`, checked with the driver's parser.
int run_check(const Options &opts, const std::string &path, const std::string &contents, ParseLine parser,
              std::FILE *out);

// Resolves every name (ranges and rows included); lists every unknown one and
// returns false when there was any. `unread` holds the tag of the file's last
// line when no line feed ends it: a name found there gets a hint.
bool resolve_names(const TagSet &tags, const std::vector<std::string> &names, std::vector<Selection> &out,
                   const TagSet *unread = nullptr, const std::string &source = {});

// The tag on the last line of `contents` when no line feed ends it (the
// driver does not read that line); empty when the file ends in a line feed.
TagSet unread_tail(std::string_view contents, ParseLine parser);

}  // namespace kplc::cli
