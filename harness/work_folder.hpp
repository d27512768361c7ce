// The folder the driver runs in. The driver finds its tag files relative to
// the working folder, as ./driver/PLC<address as 8 hex digits>_<device>.csv,
// so every program that runs it outside a panel (the tests, the benchmarks,
// the fuzz targets and the command-line tool) gives it a private temporary
// folder holding driver/ and the tag files it needs.
//
// Nothing here links the driver: the command-line tool loads it at run time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kplc::harness {

// 127.0.0.1: the only PLC address these programs give the driver.
inline constexpr uint32_t kLoopback = 0x7F000001;

// The name the driver forms for the tag file of PLC `ip`, device `dev`.
std::string tag_file_name(uint32_t ip, int dev);

// Writes `contents` as the whole of `file`. Without `replace` a file that is
// already there is left alone and reported. False with a message on failure.
bool write_file(const std::string &file, std::string_view contents, bool replace, std::string &error);

class WorkFolder {
public:
    // Creates <temporary folder>/<prefix>-XXXXXX with driver/ in it and makes
    // it the working folder. When that fails, error() says why.
    explicit WorkFolder(std::string_view prefix = "kplc");
    ~WorkFolder() { leave(); }
    WorkFolder(const WorkFolder &) = delete;
    WorkFolder &operator=(const WorkFolder &) = delete;

    // Returns to the previous working folder and removes this one (once).
    void leave();

    [[nodiscard]] bool ok() const { return error_.empty(); }
    [[nodiscard]] const std::string &error() const { return error_; }
    [[nodiscard]] const std::string &path() const { return path_; }

    // Writes `contents` as `name` (relative to the folder), replacing a file
    // of that name; false when it cannot, with error() saying why.
    bool write(const std::string &name, std::string_view contents);
    // Writes the tag file of PLC `ip`, device `dev`; returns its relative name.
    std::string write_tag_file(uint32_t ip, int dev, std::string_view contents);

private:
    std::string path_;
    std::string previous_;
    std::string error_;
};

}  // namespace kplc::harness
