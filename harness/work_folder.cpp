#include "harness/work_folder.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "format/tag_limits.hpp"

namespace kplc::harness {

namespace fs = std::filesystem;

std::string tag_file_name(uint32_t ip, int dev) {
    char name[format::kTagFileNameSize];
    format::form_tag_file_name(name, ip, dev);
    return name;
}

bool write_file(const std::string &file, std::string_view contents, bool replace, std::string &error) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (replace ? O_TRUNC : O_EXCL), 0644);
    bool ok = fd >= 0;
    for (std::size_t done = 0; ok && done < contents.size();) {
        const ssize_t n = ::write(fd, contents.data() + done, contents.size() - done);
        ok = n > 0;
        if (ok) done += static_cast<std::size_t>(n);
    }
    ok = (fd < 0 || ::close(fd) == 0) && ok;
    if (!ok) error = "cannot write '" + file + "': " + std::strerror(errno);
    return ok;
}

WorkFolder::WorkFolder(std::string_view prefix) {
    std::error_code ec;
    std::string pattern = (fs::temp_directory_path(ec) / prefix).string() + "-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        error_ = std::string("cannot create a temporary folder: ") + std::strerror(errno);
        return;
    }
    path_ = pattern;
    previous_ = fs::current_path(ec).string();
    fs::create_directory(fs::path(path_) / "driver", ec);
    if (!ec) fs::current_path(path_, ec);
    if (ec) error_ = "cannot enter '" + path_ + "': " + ec.message();
}

void WorkFolder::leave() {
    std::error_code ec;
    if (!previous_.empty()) fs::current_path(previous_, ec);
    if (!path_.empty()) fs::remove_all(path_, ec);
    previous_.clear();
    path_.clear();
}

bool WorkFolder::write(const std::string &name, std::string_view contents) {
    return !path_.empty() && write_file((fs::path(path_) / name).string(), contents, true, error_);
}

std::string WorkFolder::write_tag_file(uint32_t ip, int dev, std::string_view contents) {
    std::string name = tag_file_name(ip, dev);
    return write(name, contents) ? name : std::string{};
}

}  // namespace kplc::harness
