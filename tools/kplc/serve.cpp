#include "serve.hpp"

#include <cstdio>
#include <cstdlib>

#include "capability.hpp"
#include "check.hpp"
#include "json.hpp"
#include "json_read.hpp"
#include "selection.hpp"
#include "signals.hpp"
#include "text.hpp"
#include "work_folder.hpp"

namespace kplc::cli {
namespace {

// Bumped when a request or an answer changes incompatibly.
constexpr int kProtocolVersion = 1;

// The tool's exit statuses as the causes an answer names.
const char *cause_of(Exit status) {
    switch (status) {
    case kExitOk: return "ok";
    case kExitFailed: return "failed";
    case kExitUsage: return "bad_value";
    case kExitTag: return "unknown_tag";
    case kExitLibrary: return "library";
    case kExitConnect: return "cannot_connect";
    case kExitNoAnswer: return "no_answer";
    case kExitShortReply: return "reply_too_short";
    case kExitBadReply: return "reply_not_usable";
    case kExitInterrupted: return "interrupted";
    }
    return "failed";
}

struct Answer {
    std::string body;  // the members after "ok", each with its leading comma
    std::optional<Failure> error;
    std::string cause;  // overrides the cause of `error.status` ("bad_request")
};

Answer ok(std::string body) { return {std::move(body), std::nullopt, {}}; }
Answer failed(Exit status, std::string why, std::string cause = {}) {
    return {{}, Failure{status, std::move(why)}, std::move(cause)};
}
Answer bad_request(std::string why) { return failed(kExitUsage, std::move(why), "bad_request"); }

// A write value as the element texts the tool's encoder takes: arrays
// flattened in row-major order, true/false as 1/0, numbers as written.
bool items_of(const JsonValue &v, std::vector<std::string> &out, std::string &error) {
    switch (v.kind) {
    case JsonValue::Kind::Array:
        for (const JsonValue &item : v.items)
            if (!items_of(item, out, error)) return false;
        return true;
    case JsonValue::Kind::Bool: out.emplace_back(v.boolean ? "1" : "0"); return true;
    case JsonValue::Kind::Number:
    case JsonValue::Kind::String: out.push_back(v.text); return true;
    case JsonValue::Kind::Null:
    case JsonValue::Kind::Object: break;
    }
    error = "a value must be a number, true/false, a text or an array of them";
    return false;
}

// Tag names and ids of a request: strings, or numbers for tag ids.
bool names_of(const JsonValue *names, std::vector<std::string> &out) {
    if (names == nullptr || names->kind != JsonValue::Kind::Array) return false;
    for (const JsonValue &n : names->items) {
        if (n.kind != JsonValue::Kind::String && n.kind != JsonValue::Kind::Number) return false;
        out.push_back(n.text);
    }
    return true;
}

std::string value_json(const Context &ctx, const Selection &sel, std::span<const uint8_t> bytes) {
    const Tag &tag = ctx.tags.tags()[sel.tag];
    return cat("{\"name\":", json_string(sel.label), ",\"type\":", json_string(type_text(tag)),
               ",\"value\":", json_selection(tag, sel, bytes), "}");
}

Answer list(const Context &ctx) {
    Answer a = ok(",\"tags\":[");
    for (const Tag &tag : ctx.tags.tags()) a.body += cat(&tag == &ctx.tags.tags().front() ? "" : ",", tag_json(tag));
    a.body += "]";
    return a;
}

Answer read(Context &ctx, const JsonValue &req) {
    std::vector<std::string> names;
    if (!names_of(req.get("names"), names)) return bad_request("read needs \"names\": an array of names or tag ids");
    std::vector<Selection> selections;
    std::string unknown;
    for (const std::string &name : names) {
        Lookup found = find_selection(ctx.tags, name);
        if (found.selection) selections.push_back(std::move(*found.selection));
        else unknown += cat(unknown.empty() ? "" : "; ", found.error);
    }
    if (!unknown.empty()) return failed(kExitTag, unknown);
    for (const Selection &sel : selections)
        if (std::string why; !driver_reads(ctx.tags.tags()[sel.tag], why))
            return failed(kExitFailed, cat("cannot read ", sel.label, ": ", why));
    const ReadPlan plan = plan_reads(ctx.tags, selections, ctx.limits);
    if (!plan.error.empty()) return failed(kExitTag, plan.error);
    const ReadOutcome r = read_selections(ctx, selections, plan);
    for (std::size_t i = 0; i < selections.size(); ++i)
        if (r.failures[i])
            return failed(r.failures[i]->status, cat("reading ", selections[i].label, " failed: ",
                                                           r.failures[i]->why));
    Answer a = ok(",\"values\":[");
    for (std::size_t i = 0; i < selections.size(); ++i)
        a.body += cat(i == 0 ? "" : ",", value_json(ctx, selections[i], r.buffers[i]));
    a.body += "]";
    if (const JsonValue *t = req.get("timing"); t != nullptr && t->boolean) {
        char us[32];
        std::snprintf(us, sizeof us, "%.1f", r.driver_us);
        a.body += cat(",\"driver_us\":", us);
    }
    return a;
}

Answer write(Context &ctx, const JsonValue &req) {
    // As the tool's write: every assignment is checked before the first is
    // sent, and one problem anywhere sends nothing.
    const JsonValue *values = req.get("values");
    if (values == nullptr || values->kind != JsonValue::Kind::Object || values->members.empty())
        return bad_request("write needs \"values\": an object of names and values");
    std::vector<WriteJob> jobs;
    std::optional<Failure> first;
    std::string problems;
    for (const auto &[name, value] : values->members) {
        PreparedWrite w = prepare_write(ctx.tags, name, [&value](const Tag &, const Selection &) {
            Items items;
            items_of(value, items.items, items.error);
            return items;
        });
        if (w.job) {
            jobs.push_back(std::move(*w.job));
            continue;
        }
        if (!first) first = w.problem;
        problems += cat(problems.empty() ? "" : "; ", w.problem.why);
    }
    if (first) return failed(first->status, cat(problems, "; nothing was written"));
    Answer a = ok(",\"written\":[");
    bool any = false;
    const auto stop = perform_writes(ctx, jobs, [&](const WriteJob &job) {
        a.body += cat(any ? "," : "", value_json(ctx, job.target, job.flat));
        any = true;
    });
    if (stop)
        return failed(stop->failure.status, cat("writing ", jobs[stop->job].target.label, " failed: ",
                                                      stop->failure.why, "; ", write_summary(jobs, *stop)));
    a.body += "]";
    return a;
}

Answer check(const JsonValue &req, ParseLine parser) {
    // Paths relative to this process would name its private working folder.
    std::string contents, error;
    const JsonValue *text = req.get("text");
    const JsonValue *file = req.get("file");
    if (text != nullptr && text->kind == JsonValue::Kind::String) contents = text->text;
    else if (file == nullptr || file->kind != JsonValue::Kind::String || !file->text.starts_with("/"))
        return bad_request("check needs \"text\" (the tag file's contents) or \"file\" (an absolute path)");
    else if (!read_file(file->text, contents, error)) return failed(kExitTag, error, "tag_file");
    Answer a = ok(",\"problems\":[");
    bool any = false;
    for (const Problem &p : check_tag_file(contents, parser)) {
        a.body += cat(any ? "," : "", "{\"line\":", p.line, ",\"problem\":", json_string(p.text), "}");
        any = true;
    }
    a.body += "]";
    return a;
}

void answer(Context &ctx, const JsonValue *id, const Answer &a) {
    std::string line = "{";
    if (id != nullptr) {
        // The caller's id comes back as it was sent (a number or a text).
        line += cat("\"id\":", id->kind == JsonValue::Kind::String ? json_string(id->text) : id->text, ",");
    }
    if (a.error) {
        line += cat("\"ok\":false,\"error\":{\"cause\":\"", a.cause.empty() ? cause_of(a.error->status) : a.cause,
                    "\",\"status\":", static_cast<int>(a.error->status), ",\"message\":", json_string(a.error->why),
                    "}");
    } else {
        line += cat("\"ok\":true", a.body);
    }
    line += "}\n";
    std::fputs(line.c_str(), ctx.out.results());
    std::fflush(ctx.out.results());
}

}  // namespace

int run_serve(Context &ctx, ParseLine parser) {
    answer(ctx, nullptr,
           ok(cat(",\"serve\":", kProtocolVersion, ",\"plc\":", json_string(cat(ctx.opts.plc_text, ":", *ctx.opts.port)),
                ",\"tags\":", ctx.tags.tags().size())));
    char *buf = nullptr;
    std::size_t cap = 0;
    int status = kExitOk;
    for (ssize_t n; !g_interrupted && (n = ::getline(&buf, &cap, stdin)) >= 0;) {
        std::string_view line(buf, static_cast<std::size_t>(n));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
        if (line.find_first_not_of(" \t") == std::string_view::npos) continue;
        std::string error;
        const auto req = parse_json(line, error);
        if (!req || req->kind != JsonValue::Kind::Object) {
            answer(ctx, nullptr, bad_request(req ? "a request is a JSON object" : cat("not JSON: ", error)));
            continue;
        }
        const JsonValue *op = req->get("op");
        const std::string what = op != nullptr && op->kind == JsonValue::Kind::String ? op->text : "";
        const JsonValue *id = req->get("id");
        if (what == "close") {
            answer(ctx, id, ok({}));
            break;
        }
        if (what == "list") answer(ctx, id, list(ctx));
        else if (what == "read") answer(ctx, id, read(ctx, *req));
        else if (what == "write") answer(ctx, id, write(ctx, *req));
        else if (what == "check") answer(ctx, id, check(*req, parser));
        else answer(ctx, id, bad_request(cat("unknown op '", what, "' (list, read, write, check, close)")));
    }
    std::free(buf);
    if (g_interrupted) status = kExitInterrupted;
    return status;
}

}  // namespace kplc::cli
