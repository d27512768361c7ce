// The tool's commands.
#pragma once

#include <csignal>
#include <vector>

#include "driver_api.hpp"
#include "driver_output.hpp"
#include "options.hpp"
#include "plan.hpp"
#include "tag_set.hpp"

namespace kplc::cli {

enum Exit : int { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitTag = 3, kExitLibrary = 4 };

// Set by SIGINT/SIGTERM; watch stops at the next poll.
extern volatile std::sig_atomic_t g_interrupted;

struct Context {
    const Options &opts;
    const TagSet &tags;
    DriverOutput &out;
    Session *session = nullptr;  // null for list
    ReadLimits limits{};
};

int run_list(Context &ctx);
int run_read(Context &ctx, const std::vector<Selection> &selections);
int run_write(Context &ctx);
int run_watch(Context &ctx, const std::vector<Selection> &selections);

// Resolves every name; prints the first error and returns false.
bool resolve_names(const TagSet &tags, const std::vector<std::string> &names, std::vector<Selection> &out);

}  // namespace kplc::cli
