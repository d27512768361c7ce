// The folder the driver runs in.
//
// The driver finds its tag file relative to the working folder, as
// "./driver/PLC%08X_%d.csv" formed from the PLC address it was given and the
// device index. The tool runs the driver in a private temporary folder (so the
// user's folder is not littered) holding a copy of the tag file under that
// name, or in the folder given with --workdir.
#pragma once

#include <cstdint>
#include <string>

namespace kplc::cli {

// "./driver/PLC%08X_%d.csv"
std::string tag_file_name(uint32_t addr, unsigned dev);

class WorkFolder {
public:
    WorkFolder() = default;
    ~WorkFolder();
    WorkFolder(const WorkFolder &) = delete;
    WorkFolder &operator=(const WorkFolder &) = delete;

    // Makes `dir` (or, when empty, a new temporary folder) the working folder
    // and, when `contents` is given, writes it as the tag file `name` there.
    bool enter(const std::string &dir, const std::string &name, const std::string *contents, std::string &error);
    [[nodiscard]] const std::string &path() const { return path_; }

private:
    std::string path_;
    std::string previous_;
    bool temporary_ = false;
};

// Reads a whole file; false with a message when it cannot be read.
bool read_file(const std::string &path, std::string &contents, std::string &error);

}  // namespace kplc::cli
