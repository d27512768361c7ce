#include "work_folder.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "format/tag_limits.hpp"
#include "signals.hpp"
#include "text.hpp"

namespace kplc::cli {

namespace fs = std::filesystem;

namespace {

// Writes a new file; fails rather than replace one that appeared meanwhile.
bool create_new(const fs::path &file, const std::string &contents, std::string &error) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    bool ok = fd >= 0;
    for (std::size_t done = 0; ok && done < contents.size();) {
        const ssize_t n = ::write(fd, contents.data() + done, contents.size() - done);
        ok = n > 0;
        if (ok) done += static_cast<std::size_t>(n);
    }
    if (!ok) error = cat("cannot write '", file.string(), "': ", std::strerror(errno));
    if (fd >= 0 && ::close(fd) != 0 && ok) {
        error = cat("cannot write '", file.string(), "': ", std::strerror(errno));
        ok = false;
    }
    return ok;
}

}  // namespace

std::string tag_file_name(uint32_t addr, unsigned dev) {
    char name[format::kTagFileNameSize];
    format::form_tag_file_name(name, addr, static_cast<int>(dev));
    return name;
}

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
    return create_new(runtime, contents, error);
}

bool WorkFolder::enter(const std::string &name, const std::string &contents, std::string &error) {
    std::error_code ec;
    previous_ = fs::current_path(ec).string();
    std::string pattern = (fs::temp_directory_path(ec) / "kplc-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        error = cat("cannot create a temporary folder: ", std::strerror(errno));
        return false;
    }
    path_ = pattern;
    remove_on_signal(path_);
    const fs::path file = fs::path(path_) / name;
    fs::create_directories(file.parent_path(), ec);
    if (!create_new(file, contents, error)) return false;
    fs::current_path(path_, ec);
    if (ec) {
        error = cat("cannot enter '", path_, "': ", ec.message());
        return false;
    }
    return true;
}

WorkFolder::~WorkFolder() {
    std::error_code ec;
    if (!previous_.empty()) fs::current_path(previous_, ec);
    if (!path_.empty()) fs::remove_all(path_, ec);
    remove_on_signal({});
}

}  // namespace kplc::cli
