// The folder the driver runs in, and where its tag file comes from.
//
// The tool always runs the driver in the harness's private temporary folder
// holding a copy of the tag file under the name the driver forms: the driver
// talks to the tool's relay on 127.0.0.1 (so the name is formed from that
// address), and the panel's own folder is never written to unless the user
// asks for it.
#pragma once

#include <optional>
#include <string>

#include "harness/work_folder.hpp"

namespace kplc::cli {

using harness::tag_file_name;

class WorkFolder {
public:
    WorkFolder() = default;
    ~WorkFolder();
    WorkFolder(const WorkFolder &) = delete;
    WorkFolder &operator=(const WorkFolder &) = delete;

    // Creates a temporary folder, writes `contents` there as the tag file
    // `name` and makes it the working folder. The folder is removed when this
    // object goes, or by the signal thread when the tool is interrupted.
    bool enter(const std::string &name, const std::string &contents, std::string &error);

private:
    std::optional<harness::WorkFolder> folder_;
};

// Reads a whole file ("-" is not special); false with a message when it cannot be read.
bool read_file(const std::string &path, std::string &contents, std::string &error);

// The tag file of a run: `tags`, or else the runtime's file `name` in
// `workdir`. With both, the runtime's file must not differ from `tags` (the
// tool refuses, naming both); when it does not exist, `install` copies `tags`
// there, never replacing a file. False with a message when refused.
bool pick_tag_file(const std::string &tags, const std::string &workdir, const std::string &name, bool install,
                   std::string &source, std::string &contents, std::string &error);

}  // namespace kplc::cli
