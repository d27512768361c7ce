// Ctrl-C, termination and hang-up.
//
// The driver waits for the PLC in blocking calls that retry when a signal
// interrupts them, so a handler that only sets a flag leaves the user waiting
// for the whole response time-out. Instead the signals are blocked in every
// thread and one thread of the tool waits for them: it raises the interrupt
// flag, gives the main thread a moment to finish on its own, and otherwise
// removes the tool's temporary folder itself, says what the unfinished call
// had done, and ends the process with 130.
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

// The line the signal thread prints on standard error when it has to end the
// process (what a call that never returned had done so far); empty: none.
void say_on_signal(const std::string &line);

}  // namespace kplc::cli
