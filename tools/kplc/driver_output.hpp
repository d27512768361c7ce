// Keeps the tool's results apart from the driver's diagnostics.
//
// The driver prints its diagnostic lines on standard output (with "\r" and
// "\r\n" endings meant for the panel's console). The tool takes standard output
// over: descriptor 1 becomes a pipe that the driver writes into, the tool's
// results go to a copy of the original standard output, and the driver's lines
// are passed on to standard error, prefixed and without the carriage returns.
#pragma once

#include <cstdio>
#include <string>

namespace kplc::cli {

class DriverOutput {
public:
    DriverOutput() = default;
    ~DriverOutput();
    DriverOutput(const DriverOutput &) = delete;
    DriverOutput &operator=(const DriverOutput &) = delete;

    // Redirects descriptor 1. Without it (false) results and diagnostics share stdout.
    bool start();
    // Where the tool prints its results.
    [[nodiscard]] std::FILE *results() const { return results_ != nullptr ? results_ : stdout; }
    // Passes on what the driver printed so far; call after every driver call.
    void drain();

private:
    void emit(std::string_view line);

    std::FILE *results_ = nullptr;
    int pipe_read_ = -1;
    int saved_stdout_ = -1;
    std::string partial_;
};

}  // namespace kplc::cli
