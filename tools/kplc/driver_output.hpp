// Keeps the tool's results apart from the driver's diagnostics.
//
// The driver prints its diagnostic lines on standard output (with "\r" and
// "\r\n" endings meant for the panel's console). The tool takes standard output
// over: descriptor 1 becomes a pipe that the driver writes into, the tool's
// results go to a copy of the original standard output, and the driver's lines
// are passed on to standard error, prefixed and without the carriage returns.
//
// How many of them: all (-v), none (-q), or by default only those of a call
// that failed, where they may say more than the tool can. A driver that
// works prints the same few lines at every connection ("no matching relative
// net" among them), which would only bury the results.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "options.hpp"

namespace kplc::cli {

class DriverOutput {
public:
    explicit DriverOutput(Chatter chatter = Chatter::Normal) : chatter_(chatter) {}
    ~DriverOutput();
    DriverOutput(const DriverOutput &) = delete;
    DriverOutput &operator=(const DriverOutput &) = delete;

    // Redirects descriptor 1. Without it (false) results and diagnostics share stdout.
    bool start();
    // Where the tool prints its results.
    [[nodiscard]] std::FILE *results() const { return results_ != nullptr ? results_ : stdout; }
    // Collects what the driver printed so far; call after every driver call.
    // With -v the lines are passed on at once.
    void drain();
    // Passes on the collected lines when `failed` (and not -q), else drops them.
    void settle(bool failed);

private:
    void emit(std::string_view line);

    std::FILE *results_ = nullptr;
    int pipe_read_ = -1;
    int saved_stdout_ = -1;
    std::string partial_;
    std::vector<std::string> held_;
    Chatter chatter_;
};

}  // namespace kplc::cli
