#include "operations.hpp"

#include <time.h>

#include <utility>

#include "capability.hpp"
#include "failure.hpp"
#include "format/device_class.hpp"
#include "json.hpp"
#include "selection.hpp"
#include "signals.hpp"
#include "text.hpp"

namespace kplc::cli {
namespace {

std::string plc_text(const Context &ctx) { return cat(ctx.opts.plc_text, ":", *ctx.opts.port); }

// Starts the relay's record of one driver call. A PLC that closed the
// connection since the last call is kept: it explains the next failure.
void begin_call(Context &ctx) {
    if (ctx.proxy == nullptr) return;
    for (TrafficEvent &e : ctx.proxy->take())
        if (e.kind == TrafficEvent::Kind::Closed) ctx.between.assign(1, std::move(e));
}

// Why the call that returned `rc` failed: from the relay's record when it
// shows a cause, else in the driver's own terms.
Failure explain(Context &ctx, unsigned rc) {
    if (ctx.proxy != nullptr) {
        std::vector<TrafficEvent> events = std::exchange(ctx.between, {});
        for (TrafficEvent &e : ctx.proxy->take()) events.push_back(std::move(e));
        const Diagnosis d = diagnose(events, plc_text(ctx), ctx.opts.timeout);
        if (!d.message.empty()) return {d.status, d.message};
    }
    return {kExitFailed, cat(describe_result(rc), " (PLC ", plc_text(ctx), ")")};
}

double now_us() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

// "written: ...; unknown: ...; not written: ...": the jobs before j, then job
// j, whose part p is under way (unknown) or failed (not written), then the
// jobs after it.
std::string summary(const std::vector<WriteJob> &jobs, std::size_t j, std::size_t p, bool failed) {
    std::string written, unknown, not_written;
    for (std::size_t k = 0; k < jobs.size(); ++k) {
        std::string &list = k < j ? written : k == j && !failed ? unknown : not_written;
        list += cat(list.empty() ? "" : ", ", jobs[k].target.label);
        if (k == j && p > 0) list += cat(" (", p, " of its ", jobs[j].plan.parts.size(), " requests went through)");
    }
    return cat("written: ", written.empty() ? "none" : written,
               unknown.empty() ? "" : cat("; unknown: ", unknown, failed ? "" : " (the PLC has not answered yet)"),
               "; not written: ", not_written.empty() ? "none" : not_written);
}

}  // namespace

bool link_failure(const Failure &f) { return f.status == kExitConnect || f.status == kExitNoAnswer; }

ReadOutcome read_selections(Context &ctx, const std::vector<Selection> &selections, const ReadPlan &plan,
                            bool show_driver) {
    ReadOutcome r;
    r.failures.resize(selections.size());
    for (std::size_t bytes : plan.buffer_bytes) r.buffers.emplace_back(bytes);
    for (const auto &batch : plan.batches) {
        std::vector<Reg> regs;
        std::vector<DrvRWBuf> bufs(batch.size());
        std::vector<DrvRWBuf *> ptrs;
        for (std::size_t i = 0; i < batch.size(); ++i) {
            const ReadPart &p = batch[i];
            regs.push_back(ctx.session->reg(p.reg_id, p.reg_addr, p.reg_nums));
            bufs[i].buff = r.buffers[p.selection].data() + p.offset;
            bufs[i].size = static_cast<int32_t>(p.bytes);
            bufs[i].error = kNotRead;
            ptrs.push_back(&bufs[i]);
        }
        begin_call(ctx);
        const double start = now_us();
        const unsigned rc = ctx.session->read(regs, ptrs);
        r.driver_us += now_us() - start;
        ctx.out.drain();
        if (rc == ER_OK) ctx.between.clear();
        std::optional<Failure> failure;
        for (std::size_t i = 0; i < batch.size(); ++i) {
            uint32_t code = bufs[i].error;
            if (code == kNotRead && rc != ER_OK) code = rc;
            if (code == ER_OK) continue;
            if (!failure) failure = explain(ctx, rc != ER_OK ? rc : code);
            auto &slot = r.failures[batch[i].selection];
            if (!slot) slot = failure;
        }
        ctx.out.settle(failure.has_value() && show_driver);
        if (g_interrupted) break;
    }
    return r;
}

PreparedWrite prepare_write(const TagSet &tags, std::string_view name,
                            const std::function<Items(const Tag &, const Selection &)> &items_of) {
    const auto refuse = [](Exit status, std::string why) { return PreparedWrite{std::nullopt, {status, std::move(why)}}; };
    Lookup found = find_selection(tags, name);
    if (!found.selection) return refuse(kExitTag, found.error);
    Selection target = std::move(*found.selection);
    const Tag &tag = tags.tags()[target.tag];
    if (std::string why; !driver_writes(tag, why)) return refuse(kExitFailed, cat(name, ": ", why));
    const Items items = items_of(tag, target);
    if (!items.error.empty()) return refuse(kExitUsage, cat(name, ": ", items.error));
    const auto n = static_cast<uint32_t>(items.items.size());
    const uint32_t room = target.whole ? target.count : tag.shape->elements - target.first;
    if ((target.whole || target.count > 1) && n != target.count)
        return refuse(kExitUsage, cat(name, ": ", target.count, " value(s) expected, ", n, " given"));
    if (n > room)
        return refuse(kExitUsage, cat(name, ": ", n, " values run past the end of ", tag.label, " (", room,
                                      " element(s) from there)"));
    target.count = n;
    std::vector<std::vector<uint8_t>> encoded;
    std::vector<uint8_t> flat;
    for (const std::string &item : items.items) {
        std::string error;
        auto bytes = encode_element(tag, item, error);
        if (!bytes) return refuse(kExitUsage, cat(name, ": ", error));
        flat.insert(flat.end(), bytes->begin(), bytes->end());
        if (tag.is_text()) flat.resize(flat.size() + (tag.element_bytes - bytes->size()), 0);
        encoded.push_back(std::move(*bytes));
    }
    WritePlan plan = plan_write(tags, target, encoded);
    if (!plan.error.empty()) return refuse(kExitUsage, cat(name, ": ", plan.error));
    return {WriteJob{std::move(target), std::move(plan), std::move(flat)}, {}};
}

std::optional<WriteStop> perform_writes(Context &ctx, std::vector<WriteJob> &jobs,
                                        const std::function<void(const WriteJob &)> &written) {
    for (std::size_t j = 0; j < jobs.size(); ++j) {
        WriteJob &job = jobs[j];
        for (std::size_t p = 0; p < job.plan.parts.size(); ++p) {
            WritePart &part = job.plan.parts[p];
            Reg reg = ctx.session->reg(part.reg_id, part.reg_addr, part.reg_nums);
            begin_call(ctx);
            // A Ctrl-C while the driver waits ends the tool from the signal
            // thread: it says this, since nobody can tell whether the PLC took
            // the value.
            say_on_signal(cat("interrupted while writing ", job.target.label, ": ", summary(jobs, j, p, false)));
            const unsigned rc = ctx.session->write(reg, part.data.data());
            say_on_signal("");
            ctx.out.drain();
            if (rc == ER_OK) ctx.between.clear();
            if (rc == ER_OK && !g_interrupted) continue;
            const bool done = rc == ER_OK;
            const Failure f = done ? Failure{kExitInterrupted, "interrupted"} : explain(ctx, rc);
            ctx.out.settle(true);
            return WriteStop{j, done ? p + 1 : p, done, f};
        }
        ctx.out.settle(false);
        written(job);
    }
    return std::nullopt;
}

std::string write_summary(const std::vector<WriteJob> &jobs, const WriteStop &stop) {
    return stop.job_done ? summary(jobs, stop.job + 1, 0, true) : summary(jobs, stop.job, stop.parts_sent, true);
}

std::string device_text(const Tag &tag) { return std::string(format::device_name(tag.rec.address)); }

std::string tag_json(const Tag &tag) {
    std::string why;
    const bool r = driver_reads(tag, why), w = driver_writes(tag, why);
    const std::string program =
        tag.is_local() ? json_string(reinterpret_cast<const char *>(tag.rec.local_name)) : std::string("null");
    return cat("{\"id\":", tag.id, ",\"name\":", json_string(tag.label), ",\"type\":", json_string(type_text(tag)),
               ",\"shape\":", json_string(shape_text(tag)), ",\"device\":", json_string(device_text(tag)),
               ",\"read\":", r ? "true" : "false", ",\"write\":", w ? "true" : "false", ",\"program\":", program, "}");
}

}  // namespace kplc::cli
