// The tag layer's requests, shared by the one-shot commands and `serve`: a
// batch of reads through the driver, a write batch checked whole and then sent,
// and the cause of a failed call told from the relay's record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "driver_api.hpp"
#include "driver_output.hpp"
#include "exit_status.hpp"
#include "options.hpp"
#include "plan.hpp"
#include "tag_set.hpp"
#include "trace_proxy.hpp"
#include "values.hpp"

namespace kplc::cli {

struct Context {
    const Options &opts;
    const TagSet &tags;
    DriverOutput &out;
    Session *session = nullptr;  // null for list and check
    TraceProxy *proxy = nullptr; // the relay between driver and PLC, whose record explains failures
    ReadLimits limits{};
    std::vector<std::string> args;  // the command's names (or NAME=VALUE), -f included
    std::vector<TrafficEvent> between;  // what the relay saw between two calls (the PLC closing)
    const TagSet *unread = nullptr;     // the tag file's last line when no line feed ends it
    std::string source;                 // the tag file's name
};

struct Failure {
    Exit status = kExitFailed;
    std::string why;
};

// The PLC could not be reached or did not answer (as opposed to one bad tag).
bool link_failure(const Failure &f);

struct ReadOutcome {
    std::vector<std::vector<uint8_t>> buffers;      // per selection
    std::vector<std::optional<Failure>> failures;   // per selection
    double driver_us = 0;                           // time spent inside kplc_mulity_read
};

// Reads the planned selections, batch after batch. `show_driver`: pass on the
// driver's lines of a failed call (not while watch already reported the link
// as lost).
ReadOutcome read_selections(Context &ctx, const std::vector<Selection> &selections, const ReadPlan &plan,
                            bool show_driver = true);

// One assignment of a write batch, checked and encoded, ready to send.
struct WriteJob {
    Selection target;
    WritePlan plan;
    std::vector<uint8_t> flat;  // the values as a read would return them
};

struct PreparedWrite {
    std::optional<WriteJob> job;
    Failure problem;  // when there is no job
};

// Checks one assignment: the name, the driver's writer for the tag, the number
// of values (`items_of` splits the value for the resolved target) and every
// value, without sending anything.
PreparedWrite prepare_write(const TagSet &tags, std::string_view name,
                            const std::function<Items(const Tag &, const Selection &)> &items_of);

// Where a write batch stopped: the job, how many of its requests went through.
struct WriteStop {
    std::size_t job = 0;
    std::size_t parts_sent = 0;
    bool job_done = false;  // its requests all went through (stopped by an interrupt after it)
    Failure failure;
};

// Sends the jobs in order, calling `written` after each one; stops at the
// first failure (or interrupt).
std::optional<WriteStop> perform_writes(Context &ctx, std::vector<WriteJob> &jobs,
                                        const std::function<void(const WriteJob &)> &written);

// "written: A, B; not written: C (1 of its 3 requests went through)"
std::string write_summary(const std::vector<WriteJob> &jobs, const WriteStop &stop);

// One tag as `list --json` shows it.
std::string tag_json(const Tag &tag);
// The device area the driver found in the device column.
std::string device_text(const Tag &tag);

}  // namespace kplc::cli
