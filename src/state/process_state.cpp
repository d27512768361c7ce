#include "state/process_state.hpp"

namespace kplc {

namespace {
// Constant-initialised (all zero) at load, before any constructor runs.
constinit ProcessState g_state{};
}  // namespace

ProcessState &state() noexcept { return g_state; }

}  // namespace kplc
