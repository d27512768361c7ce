#include "work_folder.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "text.hpp"

namespace kplc::cli {

namespace fs = std::filesystem;

std::string tag_file_name(uint32_t addr, unsigned dev) {
    char name[64];
    std::snprintf(name, sizeof name, "./driver/PLC%08X_%u.csv", addr, dev);
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

bool WorkFolder::enter(const std::string &dir, const std::string &name, const std::string *contents,
                       std::string &error) {
    std::error_code ec;
    previous_ = fs::current_path(ec).string();
    if (dir.empty()) {
        std::string pattern = (fs::temp_directory_path(ec) / "kplc-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            error = cat("cannot create a temporary folder: ", std::strerror(errno));
            return false;
        }
        path_ = pattern;
        temporary_ = true;
    } else {
        path_ = fs::absolute(dir, ec).string();
    }
    if (contents != nullptr) {
        const fs::path file = fs::path(path_) / name;
        fs::create_directories(file.parent_path(), ec);
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(contents->data(), static_cast<std::streamsize>(contents->size()));
        if (!out.flush()) {
            error = cat("cannot write '", file.string(), "'");
            return false;
        }
    }
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
    if (temporary_) fs::remove_all(path_, ec);
}

}  // namespace kplc::cli
