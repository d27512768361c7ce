// One smoke run per behaviour of the built kplc tool against the built
// simulator, both as processes on 127.0.0.1, with the sample tag file.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "testkit/fake_plc.hpp"

extern char **environ;

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using kplc::testkit::FakePlc;
using namespace std::chrono_literals;

const std::string kTool = KPLC_BINARY_DIR "/tools/kplc/kplc";
const std::string kSim = KPLC_BINARY_DIR "/tools/kplc-sim/kplc-sim";
const std::string kDemo = KPLC_SOURCE_DIR "/examples/demo.csv";

std::string slurp(const fs::path &p) {
    std::ostringstream s;
    s << std::ifstream(p, std::ios::binary).rdbuf();
    return s.str();
}

pid_t spawn(const std::vector<std::string> &argv, const fs::path &out, const fs::path &err, int out_fd = -1) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out_fd >= 0) posix_spawn_file_actions_adddup2(&actions, out_fd, 1);
    else posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int wait_for(pid_t pid, std::chrono::milliseconds limit = 30s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) kill(pid, SIGKILL);
        std::this_thread::sleep_for(5ms);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct Result { int status; std::string out, err; };

class CliTool : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(kTool) || !fs::exists(kSim)) GTEST_SKIP() << "the tool or the simulator is not built";
        std::string pattern = (fs::temp_directory_path() / "kplc-cli-test-XXXXXX").string();
        dir_ = mkdtemp(pattern.data());
        fs::create_directory(dir_ / "tmp");  // the tool's temporary folders go here (TMPDIR)
        setenv("TMPDIR", (dir_ / "tmp").c_str(), 1);
        port_ = start_sim({});
    }
    void TearDown() override {
        for (pid_t pid : sims_) kill(pid, SIGTERM), wait_for(pid, 5s);
        unsetenv("TMPDIR");
        if (!dir_.empty()) fs::remove_all(dir_);
    }
    int start_sim(std::vector<std::string> options, uint16_t port = 0) {
        // Options that begin with --tags FILE serve FILE instead of the sample.
        const bool own_tags = options.size() >= 2 && options[0] == "--tags";
        std::vector<std::string> argv = {kSim, "--tags", own_tags ? options[1] : kDemo, "--port", std::to_string(port)};
        argv.insert(argv.end(), options.begin() + (own_tags ? 2 : 0), options.end());
        const fs::path out = dir_ / ("sim" + std::to_string(sims_.size()));
        fs::remove(out);  // a stopped simulator's file of this name would give its old port
        sims_.push_back(spawn(argv, out, out.string() + ".err"));
        std::smatch m;
        for (int i = 0; i < 300; ++i, std::this_thread::sleep_for(10ms))
            if (const std::string t = slurp(out); std::regex_search(t, m, std::regex(":([0-9]+)\n"))) return std::stoi(m[1]);
        return 0;
    }
    pid_t start(const std::vector<std::string> &args, int port = 0, int out_fd = -1) {
        std::vector<std::string> argv = {kTool, "--tags", kDemo, "--timeout", "2", "--port",
                                         std::to_string(port != 0 ? port : port_)};
        argv.insert(argv.end(), args.begin(), args.end());
        return spawn(argv, dir_ / "out", dir_ / "err", out_fd);
    }
    Result kplc(const std::vector<std::string> &args, int port = 0) {
        const int status = wait_for(start(args, port));
        return {status, slurp(dir_ / "out"), slurp(dir_ / "err")};
    }

    fs::path dir_;
    int port_ = 0;
    std::vector<pid_t> sims_;
};

TEST_F(CliTool, WritesReadBackAndJsonParsesForEveryShape) {
    ASSERT_EQ(kplc({"write", "Counter=-5", "Grid[1]=1,2,3,4", "Levels[2..4]=7,8,9", "Lines=a,\"b,c\",d,e",
                    "Cube[1,2,3]=6", "Ready=on", "Weights[8]=2.5", "Motor.Name=M1", "Main.Busy=1"})
                  .status, 0);
    std::ofstream names(dir_ / "names");
    for (int id = 1; id <= 37; ++id) names << id << "\n";
    names.close();
    const Result all = kplc({"--json", "read", "-f", (dir_ / "names").string()});
    ASSERT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(all.err, "");  // the driver's lines of calls that worked are not shown
    std::ofstream(dir_ / "json") << all.out;
    EXPECT_EQ(std::system(("python3 -m json.tool " + (dir_ / "json").string() + " >/dev/null").c_str()), 0) << all.out;
    EXPECT_THAT(all.out, HasSubstr("{\"name\":\"Weights\",\"value\":[0,0,0,0,0,0,0,2.5]}"));
    EXPECT_THAT(all.out, HasSubstr("{\"name\":\"Main.Busy\",\"value\":true}"));
}

TEST_F(CliTool, TellsEachFailureByItsCauseAndStatus) {
    // A PLC whose program lacks Counter: the tag file is newer than the PLC.
    const std::string demo = slurp(kDemo);
    std::ofstream(dir_ / "older.csv") << demo.substr(demo.find('\n') + 1);
    // sim: the simulator's options (empty: nothing listens).
    const struct { std::vector<std::string> sim; int status; std::string message; } cases[] = {
        {{}, 5, "cannot connect to 127.0.0.1:"},
        {{"--silent"}, 6, "no answer from the PLC at 127.0.0.1:"},
        {{"--truncate", "24"}, 7, "symbol resolve request was too short (24 bytes): it left out Counter"},
        {{"--refuse"}, 6, "closed the connection"},
        {{"--garbage"}, 8, "symbol resolve request (41 bytes) is not a frame of the PLC's protocol"},
        {{"--tags", (dir_ / "older.csv").string()}, 8, "the PLC does not know 'Counter' (status 0x0103)"},
    };
    for (const auto &c : cases) {
        const int port = c.sim.empty() ? FakePlc::closed_port() : start_sim(c.sim);
        const Result r = kplc({"--timeout", "1", "-q", "read", "Counter"}, port);
        EXPECT_EQ(r.status, c.status) << c.message;
        EXPECT_THAT(r.err, HasSubstr(c.message));
        EXPECT_THAT(r.err, ::testing::Not(HasSubstr("driver:")));  // -q
    }
    const Result verbose = kplc({"-v", "read", "Counter"});
    EXPECT_THAT(verbose.err, HasSubstr("driver: no matching relative net"));
}

TEST_F(CliTool, AWriteBatchIsCheckedWholeAndNothingIsSentOnAnyProblem) {
    ASSERT_EQ(kplc({"write", "Counter=31"}).status, 0);
    const Result r = kplc({"write", "Counter=5", "Speed=40000", "Note=x", "Nope=1", "Levels=1,2"});
    EXPECT_EQ(r.status, 2);
    for (const char *problem : {"Speed: '40000' is outside", "Note: the driver has no writer for WSTRING",
                                "unknown tag 'Nope'", "Levels: 10 value(s) expected, 2 given", "nothing was written"})
        EXPECT_THAT(r.err, HasSubstr(problem));
    EXPECT_EQ(kplc({"read", "Counter"}).out, "Counter = 31\n");
    // The PLC failing the second write of a batch: the summary names both sides.
    const Result cut = kplc({"--timeout", "1", "write", "Counter=1", "Speed=2"}, start_sim({"--close-after", "3"}));
    EXPECT_NE(cut.status, 0);
    EXPECT_THAT(cut.err, HasSubstr("written: Counter; not written: Speed"));
}

TEST_F(CliTool, CtrlCEndsAWaitWithinASecondAndRemovesTheTemporaryFolder) {
    const int silent = start_sim({"--silent"});
    for (const std::vector<std::string> &command : {std::vector<std::string>{"read", "Counter"}, {"write", "Counter=1", "Speed=2"}}) {
        std::vector<std::string> args = {"--timeout", "30"};
        args.insert(args.end(), command.begin(), command.end());
        const pid_t pid = start(args, silent);
        std::this_thread::sleep_for(500ms);
        EXPECT_FALSE(fs::is_empty(dir_ / "tmp"));
        kill(pid, SIGINT);
        EXPECT_EQ(wait_for(pid, 1s), 130);
        EXPECT_TRUE(fs::is_empty(dir_ / "tmp"));
        if (command[0] == "write") {  // nobody can tell whether the PLC took the value
            EXPECT_THAT(slurp(dir_ / "err"), HasSubstr("written: none; unknown: Counter (the PLC has not answered yet); "
                                                       "not written: Speed"));
        }
    }
}

TEST_F(CliTool, WatchSaysLinkLostAndBackOnceAndEndsWhenItsReaderGoes) {
    const uint16_t port = FakePlc::closed_port();
    const pid_t pid = start({"--timeout", "1", "watch", "Counter", "--interval-ms", "50", "--count", "40"}, port);
    std::this_thread::sleep_for(700ms);
    ASSERT_NE(start_sim({}, port), 0);
    EXPECT_EQ(wait_for(pid), 0);
    const std::string err = slurp(dir_ / "err");
    EXPECT_THAT(err, ::testing::MatchesRegex("[0-9:.]+ kplc: link lost: cannot connect[^\n]*\n[0-9:.]+ kplc: link back\n"));

    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);  // no reader left in the tool
    const pid_t piped = start({"--json", "watch", "Counter", "--interval-ms", "50"}, 0, fds[1]);
    close(fds[1]);
    char line[256] = {};
    EXPECT_GT(read(fds[0], line, sizeof line - 1), 0);
    EXPECT_THAT(line, ::testing::MatchesRegex("\\{\"time\":\"[0-9:.]+\",\"name\":\"Counter\",\"value\":0\\}\n"));
    close(fds[0]);  // as `head -1` does
    EXPECT_EQ(wait_for(piped, 2s), 0);
    EXPECT_EQ(slurp(dir_ / "err"), "");
}

TEST_F(CliTool, LeavesThePanelsTagFileAloneUnlessToldAndChecksFiles) {
    fs::create_directories(dir_ / "panel" / "driver");
    const fs::path runtime = dir_ / "panel" / "driver" / "PLC7F000001_0.csv";
    std::ofstream(runtime) << "1,X,INT,,2,,,-1\n";
    const Result r = kplc({"--workdir", (dir_ / "panel").string(), "read", "Counter"});
    EXPECT_EQ(r.status, 2);
    EXPECT_THAT(r.err, HasSubstr("differs from the runtime's tag file '" + runtime.string() + "'"));
    EXPECT_EQ(slurp(runtime), "1,X,INT,,2,,,-1\n");
    fs::remove(runtime);
    EXPECT_EQ(kplc({"--workdir", (dir_ / "panel").string(), "--install-tags", "read", "Counter"}).status, 0);
    EXPECT_EQ(slurp(runtime), slurp(kDemo));

    std::ofstream(dir_ / "bad.csv") << "id,name,type\n1,A,dint,,4,,,-1\n";
    const Result check = kplc({"check", (dir_ / "bad.csv").string()});
    EXPECT_EQ(check.status, 3);
    EXPECT_THAT(check.out, HasSubstr("bad.csv:1: a header line"));
    EXPECT_THAT(check.out, HasSubstr("bad.csv:2: unknown type 'dint'"));
    EXPECT_THAT(kplc({"list"}).out, ::testing::ContainsRegex("\n22 +Note +WSTRING\\(20\\) +- +- +r- +global\n"));
    EXPECT_EQ(kplc({"check", kDemo}).status, 0);  // Note, read only, is a note

    // Each file named on the command line, said for what it is.
    std::ofstream(dir_ / "last.csv") << "1,A,INT,,2,,,-1\n2,Pressure,REAL,,4,,,-1";
    const struct { std::vector<std::string> args; int status; std::string message; } files[] = {
        {{"check", dir_.string()}, 3, "tag file '" + dir_.string() + "' is a directory"},
        {{"read", "-f", "/nonexistent"}, 2, "cannot read names file '/nonexistent'"},
        {{"--tags", (dir_ / "last.csv").string(), "read", "Pressure"}, 3, "hint: 'Pressure' is on the last line of"},
    };
    for (const auto &f : files) {
        const Result r = kplc(f.args);
        EXPECT_EQ(r.status, f.status) << f.message;
        EXPECT_THAT(r.err, HasSubstr(f.message));
    }
}

TEST_F(CliTool, TheSimulatorKeepsEveryFileItWasNotToldToReplace) {
    std::ofstream(dir_ / "precious.pcap") << "keep";
    const std::string precious = (dir_ / "precious.pcap").string(), state = (dir_ / "s.state").string();
    const struct { std::vector<std::string> args; std::string message; } refused[] = {
        {{"--record", precious}, "exists; record into another file, or add --overwrite"},
        {{"--record", kDemo, "--overwrite"}, "is the --tags file"},
        {{"--state", "/nonexistent/dir/x.state"}, "cannot save in /nonexistent/dir"},
        {{"--state", kDemo}, "is the --tags file"},
        {{"--bogus"}, "unknown option --bogus\nTry 'kplc-sim --help'.\n"},  // one line and a hint, no usage
    };
    for (const auto &r : refused) {
        std::vector<std::string> argv = {kSim, "--tags", kDemo};
        argv.insert(argv.end(), r.args.begin(), r.args.end());
        EXPECT_NE(wait_for(spawn(argv, dir_ / "out", dir_ / "err")), 0) << r.message;
        const std::string err = slurp(dir_ / "err");
        EXPECT_THAT(err, HasSubstr(r.message));
        EXPECT_LE(std::count(err.begin(), err.end(), '\n'), 2) << err;
    }
    EXPECT_EQ(slurp(precious), "keep");
    // The state outlives every way the simulator is stopped.
    for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
        const int port = start_sim({"--state", state});
        ASSERT_EQ(kplc({"write", "Counter=" + std::to_string(sig)}, port).status, 0);
        kill(sims_.back(), sig);
        EXPECT_EQ(wait_for(sims_.back(), 5s), 0);
        sims_.pop_back();
        EXPECT_EQ(kplc({"read", "Counter"}, start_sim({"--state", state})).out, "Counter = " + std::to_string(sig) + "\n");
    }
}

}  // namespace
