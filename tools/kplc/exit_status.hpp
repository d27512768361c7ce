// The tool's exit statuses: one per cause, so that scripts can tell them apart.
#pragma once

namespace kplc::cli {

enum Exit : int {
    kExitOk = 0,
    kExitFailed = 1,      // the driver failed or refused a request without asking the PLC
    kExitUsage = 2,       // bad arguments or values
    kExitTag = 3,         // unknown tag, unusable tag file, or problems found by check
    kExitLibrary = 4,     // the driver library could not be loaded
    kExitConnect = 5,     // the PLC could not be connected to
    kExitNoAnswer = 6,    // the PLC did not answer a request (in time, or closed the connection)
    kExitShortReply = 7,  // a reply shorter than what was asked
    kExitBadReply = 8,    // a reply the driver could not use
    kExitInterrupted = 130,
};

}  // namespace kplc::cli
