// The capture dissector keeps a command table of its own, in Lua; it must
// name the same commands as the wire home, or captures are shown with names
// the driver, the simulator and the tool do not use.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "format/wire_commands.hpp"

namespace {

// Lower case, without a trailing " request": the forms the two tables may differ in.
std::string plain(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    const std::string suffix = " request";
    if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
        name.resize(name.size() - suffix.size());
    return name;
}

TEST(DissectorTable, NamesTheCommandsOfTheWireHome) {
    std::ifstream in(KPLC_SOURCE_DIR "/dissector/kplc.lua");
    ASSERT_TRUE(in) << "dissector/kplc.lua not found";
    std::stringstream text;
    text << in.rdbuf();
    const std::string lua = text.str();
    const std::size_t start = lua.find("local CMD = {");
    ASSERT_NE(start, std::string::npos);
    const std::string block = lua.substr(start, lua.find('}', start) - start);

    // Rows read: [0xC0DE] = "Name",
    std::map<unsigned, std::string> dissector;
    for (std::size_t at = block.find("[0x"); at != std::string::npos; at = block.find("[0x", at + 1)) {
        const std::size_t open = block.find('"', at);
        const std::size_t close = open == std::string::npos ? open : block.find('"', open + 1);
        ASSERT_NE(close, std::string::npos) << block.substr(at);
        dissector[std::stoul(block.substr(at + 3, 4), nullptr, 16)] = plain(block.substr(open + 1, close - open - 1));
    }

    std::map<unsigned, std::string> home;
    for (const auto &c : kplc::wire::kCommands) home[static_cast<unsigned>(c.code)] = plain(std::string(c.name));
    EXPECT_EQ(dissector, home);
}

}  // namespace
