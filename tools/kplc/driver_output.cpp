#include "driver_output.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "text.hpp"

namespace kplc::cli {
namespace {

// Room for everything the driver prints during one call, so that its printf
// never blocks on a pipe nobody reads until the call returns.
constexpr int kPipeBytes = 1 << 20;

void write_all(int fd, std::string_view s) {
    while (!s.empty()) {
        const ssize_t n = ::write(fd, s.data(), s.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        s.remove_prefix(static_cast<std::size_t>(n));
    }
}

}  // namespace

bool DriverOutput::start() {
    std::fflush(stdout);
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    (void)::fcntl(fds[1], F_SETPIPE_SZ, kPipeBytes);
    const int saved = ::dup(STDOUT_FILENO);
    std::FILE *results = saved >= 0 ? ::fdopen(saved, "w") : nullptr;
    if (results == nullptr || ::dup2(fds[1], STDOUT_FILENO) < 0) {
        if (results != nullptr) std::fclose(results);
        else if (saved >= 0) ::close(saved);
        ::close(fds[0]);
        ::close(fds[1]);
        return false;
    }
    ::close(fds[1]);
    (void)::fcntl(fds[0], F_SETFL, O_NONBLOCK);
    // One result line at a time, so that results and messages on standard
    // error keep their order when both go to one terminal or file.
    std::setvbuf(results, nullptr, _IOLBF, 0);
    pipe_read_ = fds[0];
    saved_stdout_ = saved;
    results_ = results;
    return true;
}

void DriverOutput::drain() {
    if (pipe_read_ < 0) return;
    std::fflush(stdout);
    char buf[4096];
    while (true) {
        const ssize_t n = ::read(pipe_read_, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        partial_.append(buf, static_cast<std::size_t>(n));
    }
    std::size_t start = 0;
    for (std::size_t lf; (lf = partial_.find('\n', start)) != std::string::npos; start = lf + 1) {
        const std::string_view line = std::string_view(partial_).substr(start, lf - start);
        if (chatter_ == Chatter::Verbose) emit(line);
        else if (chatter_ == Chatter::Normal) held_.emplace_back(line);
    }
    partial_.erase(0, start);
}

void DriverOutput::settle(bool failed) {
    drain();
    if (failed)
        for (const std::string &line : held_) emit(line);
    held_.clear();
}

void DriverOutput::emit(std::string_view line) {
    std::string out;
    for (char c : line)
        if (c != '\r') out.push_back(c);
    if (out.empty()) return;
    std::fflush(stderr);
    write_all(STDERR_FILENO, cat("driver: ", out, "\n"));
}

DriverOutput::~DriverOutput() {
    if (pipe_read_ < 0) return;
    drain();
    if (!partial_.empty() && chatter_ == Chatter::Verbose) emit(partial_);
    std::fflush(results_);
    // Give descriptor 1 back so that anything printed after this still shows.
    ::dup2(saved_stdout_, STDOUT_FILENO);
    std::fclose(results_);
    ::close(pipe_read_);
}

}  // namespace kplc::cli
