// The capture dissector keeps a command table of its own, in Lua; it must
// name the same commands as the wire home, or captures are shown with names
// the driver, the simulator and the tool do not use.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <regex>
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

    std::map<unsigned, std::string> dissector;
    const std::regex row(R"re(\[0x([0-9A-Fa-f]{4})\]\s*=\s*"([^"]*)")re");
    for (std::sregex_iterator it(block.begin(), block.end(), row), end; it != end; ++it)
        dissector[std::stoul((*it)[1].str(), nullptr, 16)] = plain((*it)[2].str());

    std::map<unsigned, std::string> home;
    for (const auto &c : kplc::wire::kCommands) home[static_cast<unsigned>(c.code)] = plain(std::string(c.name));
    EXPECT_EQ(dissector, home);
}

}  // namespace
