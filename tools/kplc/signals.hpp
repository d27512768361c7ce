// Ctrl-C, termination and hang-up.
//
// The driver waits for the PLC in blocking calls that retry when a signal
// interrupts them, so a handler that only sets a flag leaves the user waiting
// for the whole response time-out. Instead the signals are blocked in every
// thread and one thread of the tool waits for them: it raises the interrupt
// flag, gives the main thread a moment to finish on its own, and otherwise
// removes the tool's temporary folder itself and ends the process with 130.
#pragma once

#include <atomic>
#include <string>

namespace kplc::cli {

// Raised when SIGINT, SIGTERM or SIGHUP arrived.
extern std::atomic<bool> g_interrupted;

// Call before any other thread starts, so that every thread inherits the mask.
void start_signal_watch();

// The folder to remove when the signal thread has to end the process; empty: none.
void remove_on_signal(const std::string &folder);

}  // namespace kplc::cli
