#include "commands.hpp"

#include <poll.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <optional>
#include <utility>

#include "capability.hpp"
#include "check.hpp"
#include "format/tag_lines.hpp"
#include "failure.hpp"
#include "json.hpp"
#include "selection.hpp"
#include "text.hpp"
#include "values.hpp"

namespace kplc::cli {
namespace {

void error_line(const std::string &message) { std::fprintf(stderr, "kplc: %s\n", message.c_str()); }

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

// True when nobody reads the output any more (the reader of a pipe is gone),
// seen without writing: watch prints nothing while a value stays the same.
bool output_closed(std::FILE *out) {
    pollfd p{::fileno(out), 0, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLERR | POLLHUP)) != 0;
}

// Sleeps in short steps so that an interrupt ends the wait promptly.
void pause_ms(uint32_t ms, std::FILE *out) {
    while (ms > 0 && !g_interrupted && !output_closed(out)) {
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

// Either the text line "NAME = VALUE" or one JSON object of an array.
void print_value(Context &ctx, bool &first, const Tag &tag, const Selection &sel, std::span<const uint8_t> bytes,
                 const char *assign) {
    std::FILE *out = ctx.out.results();
    if (!ctx.opts.json) {
        std::fprintf(out, "%s %s %s\n", sel.label.c_str(), assign, format_selection(tag, sel, bytes).c_str());
        return;
    }
    std::fprintf(out, "%s{\"name\":%s,\"value\":%s}", first ? "[\n" : ",\n", json_string(sel.label).c_str(),
                 json_selection(tag, sel, bytes).c_str());
    first = false;
}

// A name that only the unread last line of the tag file defines.
std::string unread_hint(const TagSet *unread, const std::string &source, std::string_view name) {
    const bool id = name.find_first_not_of("0123456789 ") == std::string_view::npos;  // ids count read lines only
    if (unread == nullptr || unread->tags().empty() || id || !find_selection(*unread, name).selection) return {};
    return cat("hint: '", name, "' is on the last line of ", source,
               ", which no line feed ends: the driver does not read that line (end the file with a line feed)");
}

void close_json(Context &ctx, bool first) {
    if (ctx.opts.json) std::fputs(first ? "[]\n" : "\n]\n", ctx.out.results());
}

}  // namespace

TagSet unread_tail(std::string_view contents, ParseLine parser) {
    const std::size_t lf = contents.rfind('\n');
    std::string_view tail = lf == std::string_view::npos ? contents : contents.substr(lf + 1);
    // Only the last piece of a long line would count, as the loader cuts it.
    if (tail.size() > kplc::format::kChunkChars - 1) tail = tail.substr(tail.size() - (kplc::format::kChunkChars - 1));
    if (tail.find_first_not_of(" \t\r") == std::string_view::npos) return TagSet::parse("", parser);
    return TagSet::parse(cat(tail, "\n"), parser);
}

bool resolve_names(const TagSet &tags, const std::vector<std::string> &names, std::vector<Selection> &out,
                   const TagSet *unread, const std::string &source) {
    bool ok = true;
    for (const std::string &name : names) {
        Lookup found = find_selection(tags, name);
        if (!found.selection) {
            error_line(found.error);
            if (const std::string hint = unread_hint(unread, source, name); !hint.empty()) error_line(hint);
            ok = false;
            continue;
        }
        out.push_back(std::move(*found.selection));
    }
    return ok;
}

int run_list(Context &ctx) {
    std::FILE *out = ctx.out.results();
    std::vector<std::array<std::string, 7>> rows;
    rows.push_back({"ID", "NAME", "TYPE", "SHAPE", "DEVICE", "ACCESS", "SCOPE"});
    bool first = true;
    for (const Tag &tag : ctx.tags.tags()) {
        if (ctx.opts.json) {
            std::fprintf(out, "%s%s", first ? "[\n" : ",\n", tag_json(tag).c_str());
            first = false;
            continue;
        }
        std::string why;
        const bool r = driver_reads(tag, why), w = driver_writes(tag, why);
        rows.push_back({std::to_string(tag.id), tag.label, type_text(tag), shape_text(tag), device_text(tag),
                        cat(r ? "r" : "-", w ? "w" : "-"), scope_text(tag)});
    }
    if (ctx.opts.json) {
        close_json(ctx, first);
        return kExitOk;
    }
    std::array<std::size_t, 7> width{};
    for (const auto &row : rows)
        for (std::size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
    for (const auto &row : rows) {
        std::string line;
        for (std::size_t c = 0; c < row.size(); ++c) {
            line += row[c];
            if (c + 1 < row.size()) line.append(width[c] - row[c].size() + 2, ' ');
        }
        std::fprintf(out, "%s\n", line.c_str());
    }
    return kExitOk;
}

int run_check(const Options &opts, const std::string &path, const std::string &contents, ParseLine parser,
              std::FILE *out) {
    // The first kMaxShown findings are listed, then their count: a file of
    // any size (random bytes too) gives a screenful, not a copy of itself.
    constexpr std::size_t kMaxShown = 100;
    const std::vector<Problem> problems = check_tag_file(contents, parser);
    const auto faults = static_cast<std::size_t>(
        std::count_if(problems.begin(), problems.end(), [](const Problem &p) { return !p.note; }));
    bool first = true;
    for (std::size_t i = 0; i < problems.size() && i < kMaxShown; ++i) {
        const Problem &p = problems[i];
        if (opts.json) {
            std::fprintf(out, "%s{\"line\":%zu,\"%s\":%s}", first ? "[\n" : ",\n", p.line, p.note ? "note" : "problem",
                         json_string(p.text).c_str());
            first = false;
        } else {
            const std::string where = p.line != 0 ? cat(path, ":", p.line) : path;
            std::fprintf(out, "%s: %s%s\n", where.c_str(), p.note ? "note: " : "", p.text.c_str());
        }
    }
    if (problems.size() > kMaxShown) {
        const std::string more = cat(problems.size() - kMaxShown, " more findings not shown (", faults,
                                     " problems in all)");
        if (opts.json) std::fprintf(out, ",\n{\"line\":0,\"note\":%s}", json_string(more).c_str());
        else std::fprintf(out, "%s: %s\n", path.c_str(), more.c_str());
    }
    if (opts.json) std::fputs(first ? "[]\n" : "\n]\n", out);
    else if (faults == 0) std::fprintf(out, "%s: no problems found\n", path.c_str());
    return faults == 0 ? kExitOk : kExitTag;
}

int run_read(Context &ctx, const std::vector<Selection> &selections) {
    // Tags the driver cannot read are refused here, without a request.
    std::vector<Selection> readable;
    std::vector<std::optional<std::string>> refused;
    for (const Selection &sel : selections) {
        std::string why;
        if (driver_reads(ctx.tags.tags()[sel.tag], why)) {
            readable.push_back(sel);
            refused.emplace_back();
        } else {
            refused.emplace_back(why);
        }
    }
    const ReadPlan plan = plan_reads(ctx.tags, readable, ctx.limits);
    if (!plan.error.empty()) {
        error_line(plan.error);
        return kExitTag;
    }
    const ReadOutcome r = read_selections(ctx, readable, plan);
    if (g_interrupted) return kExitInterrupted;
    int status = kExitOk;
    bool first = true;
    for (std::size_t i = 0, k = 0; i < selections.size(); ++i) {
        const Selection &sel = selections[i];
        if (refused[i]) {
            error_line(cat("reading ", sel.label, " failed: ", *refused[i]));
            if (status == kExitOk) status = kExitFailed;
            continue;
        }
        const std::size_t j = k++;
        if (r.failures[j]) {
            error_line(cat("reading ", sel.label, " failed: ", r.failures[j]->why));
            if (status == kExitOk) status = r.failures[j]->status;
            continue;
        }
        print_value(ctx, first, ctx.tags.tags()[sel.tag], sel, r.buffers[j], "=");
    }
    close_json(ctx, first);
    return status;
}

int run_write(Context &ctx) {
    // The whole batch is checked before the first write: every name, every
    // value and the driver's writer for every type. One problem anywhere and
    // nothing is sent; every problem is listed.
    std::vector<WriteJob> jobs;
    int status = kExitOk;
    auto problem = [&status](Exit s, const std::string &message) {
        error_line(message);
        if (status == kExitOk) status = s;
    };
    for (const std::string &arg : ctx.args) {
        const auto assignment = split_assignment(arg);
        if (!assignment) {
            problem(kExitUsage, cat("write expects NAME=VALUE, got '", arg, "'"));
            continue;
        }
        const auto &[name, value] = *assignment;
        PreparedWrite w = prepare_write(ctx.tags, name, [&value](const Tag &tag, const Selection &target) {
            return split_items(tag, target, value);
        });
        if (w.job) jobs.push_back(std::move(*w.job));
        else {
            problem(w.problem.status, w.problem.why);
            if (w.problem.status != kExitTag) continue;
            if (const std::string hint = unread_hint(ctx.unread, ctx.source, name); !hint.empty()) error_line(hint);
        }
    }
    if (status != kExitOk) {
        error_line("nothing was written");
        return status;
    }

    bool first = true;
    const auto stop = perform_writes(ctx, jobs, [&](const WriteJob &job) {
        print_value(ctx, first, ctx.tags.tags()[job.target.tag], job.target, job.flat, ":=");
    });
    if (stop) {
        error_line(cat("writing ", jobs[stop->job].target.label, " failed: ", stop->failure.why));
        error_line(write_summary(jobs, *stop));
    }
    close_json(ctx, first);
    return stop ? stop->failure.status : kExitOk;
}

int run_watch(Context &ctx, const std::vector<Selection> &selections) {
    for (const Selection &sel : selections)
        if (std::string why; !driver_reads(ctx.tags.tags()[sel.tag], why)) {
            error_line(cat("cannot watch ", sel.label, ": ", why));
            return kExitFailed;
        }
    const ReadPlan plan = plan_reads(ctx.tags, selections, ctx.limits);
    if (!plan.error.empty()) {
        error_line(plan.error);
        return kExitTag;
    }
    std::FILE *out = ctx.out.results();
    std::vector<std::string> last(selections.size());
    std::vector<bool> seen(selections.size(), false);
    bool link_down = false;
    int status = kExitOk;
    for (uint64_t poll = 0; !g_interrupted && (!ctx.opts.count || poll < *ctx.opts.count); ++poll) {
        if (poll != 0) pause_ms(ctx.opts.interval_ms, out);
        if (g_interrupted) break;
        if (output_closed(out)) return kExitOk;
        // While the link is down the driver repeats the same lines at every
        // poll: "link lost" and "link back" say it once each instead (-v
        // still shows them all).
        const ReadOutcome r = read_selections(ctx, selections, plan, false);
        if (g_interrupted) break;
        status = kExitOk;
        const std::string now_time = timestamp();
        const auto failed = std::find_if(r.failures.begin(), r.failures.end(), [](const auto &f) { return f.has_value(); });
        if (failed != r.failures.end() && (link_down || link_failure(**failed))) {
            // Down, or going down: one line for it, none per poll.
            status = (*failed)->status;
            if (!link_down) std::fprintf(stderr, "%s kplc: link lost: %s\n", now_time.c_str(), (*failed)->why.c_str());
            link_down = true;
            continue;
        }
        if (link_down && failed == r.failures.end()) std::fprintf(stderr, "%s kplc: link back\n", now_time.c_str());
        link_down = false;
        for (std::size_t i = 0; i < selections.size(); ++i) {
            const Selection &sel = selections[i];
            const Tag &tag = ctx.tags.tags()[sel.tag];
            std::string now = r.failures[i] ? cat("\x01", r.failures[i]->why)  // marks a failure state
                                            : format_selection(tag, sel, r.buffers[i]);
            if (r.failures[i] && status == kExitOk) status = r.failures[i]->status;
            if (seen[i] && now == last[i]) continue;
            seen[i] = true;
            last[i] = now;
            if (now.front() == '\x01')
                std::fprintf(stderr, "%s kplc: reading %s failed: %s\n", now_time.c_str(), sel.label.c_str(),
                             now.c_str() + 1);
            else if (ctx.opts.json)
                std::fprintf(out, "{\"time\":\"%s\",\"name\":%s,\"value\":%s}\n", now_time.c_str(),
                             json_string(sel.label).c_str(), json_selection(tag, sel, r.buffers[i]).c_str());
            else
                std::fprintf(out, "%s %s = %s\n", now_time.c_str(), sel.label.c_str(), now.c_str());
        }
        // A reader that went away (watch ... | head -1) ends the watch quietly.
        if (std::fflush(out) != 0 || std::ferror(out)) return kExitOk;
    }
    return g_interrupted ? kExitInterrupted : status;
}

}  // namespace kplc::cli
