#include "signals.hpp"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>

namespace kplc::cli {

std::atomic<bool> g_interrupted{false};

namespace {

// How long the main thread may take to wind up by itself after a signal; the
// user gets the prompt back within a second in any case.
constexpr auto kGrace = std::chrono::milliseconds(400);

std::mutex g_folder_mutex;
std::string g_folder;
std::string g_last_words;

sigset_t watched() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

[[noreturn]] void end_now() {
    {
        std::lock_guard lock(g_folder_mutex);
        std::error_code ec;
        if (!g_folder.empty()) std::filesystem::remove_all(g_folder, ec);
        if (!g_last_words.empty()) std::fprintf(stderr, "kplc: %s\n", g_last_words.c_str());
    }
    std::fflush(nullptr);
    ::_exit(130);
}

void watch(sigset_t set) {
    int sig = 0;
    if (::sigwait(&set, &sig) != 0) return;
    g_interrupted = true;
    // A second signal, or the grace time running out, ends the process here.
    timespec step{0, 20'000'000};
    const auto deadline = std::chrono::steady_clock::now() + kGrace;
    while (std::chrono::steady_clock::now() < deadline) {
        if (::sigtimedwait(&set, nullptr, &step) > 0) break;
    }
    end_now();
}

}  // namespace

void start_signal_watch() {
    const sigset_t set = watched();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // A PLC or a reader that goes away must not end the tool through a write.
    std::signal(SIGPIPE, SIG_IGN);
    std::thread(watch, set).detach();
}

void remove_on_signal(const std::string &folder) {
    std::lock_guard lock(g_folder_mutex);
    g_folder = folder;
}

}  // namespace kplc::cli

namespace kplc::cli {

void say_on_signal(const std::string &line) {
    std::lock_guard lock(g_folder_mutex);
    g_last_words = line;
}

}  // namespace kplc::cli
