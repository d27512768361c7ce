#include "commands.hpp"

#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "text.hpp"
#include "values.hpp"

namespace kplc::cli {

volatile std::sig_atomic_t g_interrupted = 0;

namespace {

void error_line(const std::string &message) { std::fprintf(stderr, "kplc: %s\n", message.c_str()); }

std::string plc_text(const Context &ctx) { return cat(ctx.opts.plc_text, ":", *ctx.opts.port); }

struct ReadOutcome {
    std::vector<std::vector<uint8_t>> buffers;  // per selection
    std::vector<uint32_t> errors;               // per selection: first failing result, or ER_OK
};

ReadOutcome read_selections(Context &ctx, const std::vector<Selection> &selections, const ReadPlan &plan) {
    ReadOutcome r;
    r.errors.assign(selections.size(), ER_OK);
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
        const unsigned rc = ctx.session->read(regs, ptrs);
        ctx.out.drain();
        for (std::size_t i = 0; i < batch.size(); ++i) {
            uint32_t code = bufs[i].error;
            if (code == kNotRead && rc != ER_OK) code = rc;
            uint32_t &slot = r.errors[batch[i].selection];
            if (slot == ER_OK) slot = code;
        }
        if (g_interrupted) break;
    }
    return r;
}

std::string timestamp() {
    timeval tv{};
    ::gettimeofday(&tv, nullptr);
    std::tm tm{};
    ::localtime_r(&tv.tv_sec, &tm);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03ld", tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<long>(tv.tv_usec / 1000));
    return buf;
}

// Sleeps in short steps so that an interrupt ends the wait promptly.
void pause_ms(uint32_t ms) {
    while (ms > 0 && !g_interrupted) {
        const uint32_t step = std::min<uint32_t>(ms, 50);
        const timespec ts{0, static_cast<long>(step) * 1000000L};
        ::nanosleep(&ts, nullptr);
        ms -= step;
    }
}

std::string scope_text(const Tag &tag) {
    if (!tag.is_local()) return "global";
    const auto *program = reinterpret_cast<const char *>(tag.rec.local_name);
    return cat("program ", *program != '\0' ? program : "?", " (", tag.rec.mode_type, ")");
}

}  // namespace

bool resolve_names(const TagSet &tags, const std::vector<std::string> &names, std::vector<Selection> &out) {
    for (const std::string &name : names) {
        Lookup found = tags.find(name);
        if (!found.selection) {
            error_line(found.error);
            return false;
        }
        out.push_back(std::move(*found.selection));
    }
    return true;
}

int run_list(Context &ctx) {
    const auto &tags = ctx.tags.tags();
    std::vector<std::array<std::string, 5>> rows;
    rows.push_back({"ID", "NAME", "TYPE", "SHAPE", "SCOPE"});
    for (const Tag &tag : tags)
        rows.push_back({std::to_string(tag.id), tag.label, type_text(tag), shape_text(tag), scope_text(tag)});
    std::array<std::size_t, 5> width{};
    for (const auto &row : rows)
        for (std::size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
    for (const auto &row : rows) {
        std::string line;
        for (std::size_t c = 0; c < row.size(); ++c) {
            line += row[c];
            if (c + 1 < row.size()) line.append(width[c] - row[c].size() + 2, ' ');
        }
        std::fprintf(ctx.out.results(), "%s\n", line.c_str());
    }
    return kExitOk;
}

int run_read(Context &ctx, const std::vector<Selection> &selections) {
    const ReadPlan plan = plan_reads(ctx.tags, selections, ctx.limits);
    if (!plan.error.empty()) {
        error_line(plan.error);
        return kExitTag;
    }
    const ReadOutcome r = read_selections(ctx, selections, plan);
    int status = kExitOk;
    for (std::size_t i = 0; i < selections.size(); ++i) {
        const Selection &sel = selections[i];
        if (r.errors[i] != ER_OK) {
            error_line(cat("reading ", sel.label, " from ", plc_text(ctx), " failed: ", describe_result(r.errors[i])));
            status = kExitFailed;
            continue;
        }
        const Tag &tag = ctx.tags.tags()[sel.tag];
        std::fprintf(ctx.out.results(), "%s = %s\n", sel.label.c_str(),
                     format_selection(tag, sel, r.buffers[i]).c_str());
    }
    return status;
}

int run_write(Context &ctx) {
    // Everything is checked before the first write, so that a mistake in the
    // third assignment does not leave the first two written.
    struct Job {
        Selection target;
        WritePlan plan;
        std::string shown;
    };
    std::vector<Job> jobs;
    for (const std::string &arg : ctx.opts.args) {
        const auto [name, value] = *split_assignment(arg);
        Lookup found = ctx.tags.find(name);
        if (!found.selection) {
            error_line(found.error);
            return kExitTag;
        }
        Selection target = std::move(*found.selection);
        const Tag &tag = ctx.tags.tags()[target.tag];
        const Items items = split_items(tag, target, value);
        if (!items.error.empty()) {
            error_line(cat(name, ": ", items.error));
            return kExitUsage;
        }
        const auto n = static_cast<uint32_t>(items.items.size());
        if (target.whole && n != target.count) {
            error_line(cat(name, ": ", target.count, " value(s) expected, ", n, " given"));
            return kExitUsage;
        }
        if (!target.whole && n > tag.shape->elements - target.first) {
            error_line(cat(name, ": ", n, " values run past the end of ", tag.label, " (",
                           tag.shape->elements - target.first, " element(s) from there)"));
            return kExitUsage;
        }
        target.count = n;
        std::vector<std::vector<uint8_t>> encoded;
        for (const std::string &item : items.items) {
            std::string error;
            auto bytes = encode_element(tag, item, error);
            if (!bytes) {
                error_line(cat(name, ": ", error));
                return kExitUsage;
            }
            encoded.push_back(std::move(*bytes));
        }
        // Shown back the way a read would show it.
        std::vector<uint8_t> flat;
        for (const auto &e : encoded) {
            flat.insert(flat.end(), e.begin(), e.end());
            if (tag.is_text()) flat.resize(flat.size() + (tag.element_bytes - e.size()), 0);
        }
        std::string shown = format_selection(tag, target, flat);
        WritePlan plan = plan_write(ctx.tags, target, encoded);
        if (!plan.error.empty()) {
            error_line(plan.error);
            return kExitUsage;
        }
        jobs.push_back({std::move(target), std::move(plan), std::move(shown)});
    }
    for (Job &job : jobs) {
        for (WritePart &part : job.plan.parts) {
            Reg reg = ctx.session->reg(part.reg_id, part.reg_addr, part.reg_nums);
            const unsigned rc = ctx.session->write(reg, part.data.data());
            ctx.out.drain();
            if (rc != ER_OK) {
                error_line(cat("writing ", job.target.label, " to ", plc_text(ctx), " failed: ", describe_result(rc)));
                return kExitFailed;
            }
        }
        std::fprintf(ctx.out.results(), "%s := %s\n", job.target.label.c_str(), job.shown.c_str());
    }
    return kExitOk;
}

int run_watch(Context &ctx, const std::vector<Selection> &selections) {
    const ReadPlan plan = plan_reads(ctx.tags, selections, ctx.limits);
    if (!plan.error.empty()) {
        error_line(plan.error);
        return kExitTag;
    }
    std::vector<std::string> last(selections.size());
    std::vector<bool> seen(selections.size(), false);
    bool last_poll_failed = false;
    for (uint64_t poll = 0; !g_interrupted && (!ctx.opts.count || poll < *ctx.opts.count); ++poll) {
        if (poll != 0) pause_ms(ctx.opts.interval_ms);
        if (g_interrupted) break;
        const ReadOutcome r = read_selections(ctx, selections, plan);
        if (g_interrupted) break;
        last_poll_failed = false;
        for (std::size_t i = 0; i < selections.size(); ++i) {
            const Selection &sel = selections[i];
            std::string now;
            if (r.errors[i] != ER_OK) {
                last_poll_failed = true;
                now = cat("\x01", describe_result(r.errors[i]));  // marks a failure state
            } else {
                now = format_selection(ctx.tags.tags()[sel.tag], sel, r.buffers[i]);
            }
            if (seen[i] && now == last[i]) continue;
            seen[i] = true;
            last[i] = now;
            if (now.front() == '\x01')
                std::fprintf(stderr, "%s kplc: reading %s from %s failed: %s\n", timestamp().c_str(), sel.label.c_str(),
                             plc_text(ctx).c_str(), now.c_str() + 1);
            else
                std::fprintf(ctx.out.results(), "%s %s = %s\n", timestamp().c_str(), sel.label.c_str(), now.c_str());
        }
        std::fflush(ctx.out.results());
    }
    return last_poll_failed ? kExitFailed : kExitOk;
}

}  // namespace kplc::cli
