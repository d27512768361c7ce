// The tool's commands.
#pragma once

#include <string>
#include <vector>

#include "operations.hpp"
#include "signals.hpp"

namespace kplc::cli {

int run_list(Context &ctx);
int run_read(Context &ctx, const std::vector<Selection> &selections);
int run_write(Context &ctx);
int run_watch(Context &ctx, const std::vector<Selection> &selections);
// `contents` of the tag file `path`, checked with the driver's parser.
int run_check(const Options &opts, const std::string &path, const std::string &contents, ParseLine parser,
              std::FILE *out);

// Resolves every name (ranges and rows included); lists every unknown one and
// returns false when there was any. `unread` holds the tag of the file's last
// line when no line feed ends it: a name found there gets a hint.
bool resolve_names(const TagSet &tags, const std::vector<std::string> &names, std::vector<Selection> &out,
                   const TagSet *unread = nullptr, const std::string &source = {});

// The tag on the last line of `contents` when no line feed ends it (the
// driver does not read that line); empty when the file ends in a line feed.
TagSet unread_tail(std::string_view contents, ParseLine parser);

}  // namespace kplc::cli
