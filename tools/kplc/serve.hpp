// `kplc serve`: one driver and one PLC for as long as the caller wants,
// spoken to with one JSON request per line on standard input and answered
// with one JSON object per line on standard output (docs/SESSION.md).
#pragma once

#include "operations.hpp"

namespace kplc::cli {

// Answers requests until standard input ends or a "close" request; the driver's
// diagnostic lines go to standard error, never between the answers.
int run_serve(Context &ctx, ParseLine parser);

}  // namespace kplc::cli
