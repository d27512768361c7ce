#include "state/process_state.hpp"

namespace kplc {

// Constant-initialised (all zero) at load, before any constructor runs.
constinit ProcessState g_process_state{};

}  // namespace kplc
