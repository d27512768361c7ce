#include "work_folder.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "format/tag_limits.hpp"
#include "signals.hpp"
#include "text.hpp"

namespace kplc::cli {

namespace fs = std::filesystem;

bool read_file(const std::string &path, std::string &contents, std::string &error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = cat("cannot read tag file '", path, "': ", std::strerror(errno));
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    contents = text.str();
    return true;
}

bool pick_tag_file(const std::string &tags, const std::string &workdir, const std::string &name, bool install,
                   std::string &source, std::string &contents, std::string &error) {
    const std::string runtime = workdir.empty() ? std::string{} : (fs::path(workdir) / name.substr(2)).string();
    source = tags.empty() ? runtime : tags;
    if (!read_file(source, contents, error)) return false;
    if (tags.empty() || runtime.empty()) return true;

    std::error_code ec;
    if (fs::exists(runtime, ec)) {
        std::string existing;
        if (!read_file(runtime, existing, error)) return false;
        if (existing == contents) return true;
        error = cat("'", tags, "' differs from the runtime's tag file '", runtime,
                    "'; give only one of them (nothing was changed)");
        return false;
    }
    if (!install) return true;
    fs::create_directories(fs::path(runtime).parent_path(), ec);
    return harness::write_file(runtime, contents, false, error);
}

bool WorkFolder::enter(const std::string &name, const std::string &contents, std::string &error) {
    folder_.emplace("kplc");
    if (folder_->ok()) remove_on_signal(folder_->path());
    folder_->write(name, contents);
    error = folder_->error();
    return error.empty();
}

WorkFolder::~WorkFolder() {
    folder_.reset();  // removed before the signal thread forgets it
    remove_on_signal({});
}

}  // namespace kplc::cli
