// The built kplc tool against the built simulator, both as separate processes
// on 127.0.0.1, the way an integrator uses them.
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kTool = KPLC_BINARY_DIR "/tools/kplc/kplc";
const std::string kSim = KPLC_BINARY_DIR "/tools/kplc-sim/kplc-sim";

constexpr const char *kTags =
    "1,Counter,DINT,,4,,DM100,-1\n"
    "2,Speed,INT,,2,,,-1\n"
    "3,Setpoint,UINT,,2,,,-1\n"
    "4,Total,UDINT,,4,,,-1\n"
    "5,Ratio,REAL,,4,,,-1\n"
    "6,Precise,LREAL,,8,,,-1\n"
    "7,Uptime,LTIME,,8,,,-1\n"
    "8,Lamp,BOOL,,1,,MR100,-1\n"
    "9,Ready,BOOL,,1,,,-1\n"
    "10,Flags,BOOL,[0..15],2,,,-1\n"
    "11,Relays,BOOL,[0..15],2,,MR200,-1\n"
    "12,Levels,INT,[0..9],20,,EM200,-1\n"
    "13,Grid,DINT,[0..2_0..3],48,,,-1\n"
    "14,Cube,INT,[0..1_0..2_0..3],48,,,-1\n"
    "15,Title,STRING,,20,,,-1\n"
    "16,Lines,STRING,[0..3],80,,,-1\n"
    "17,Motor.Speed,INT,,2,,,-1\n"
    "18,Cell[1][2].Val,DINT,,4,,,-1\n"
    "19,Main.Step,UINT,,2,,,0\n"
    "20,Aux.Count,DINT,,4,,,1\n"
    "21,Wide,INT,[0..999],2000,,,-1\n"
    "22,Essay,STRING,,500,,,-1\n"
    "23,Note,WSTRING,,40,,,-1\n"
    "24,Small,SINT,,1,,,-1\n";

struct Result {
    int status = -1;
    std::string out, err;
};

std::string slurp(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

pid_t spawn(const std::vector<std::string> &argv, const fs::path &out, const fs::path &err) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Waits for `pid`, killing it after `limit`.
int wait_for(pid_t pid, std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A port on 127.0.0.1 that nothing listens on.
uint16_t closed_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
    getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
    close(fd);
    return ntohs(sa.sin_port);
}

class Simulator {
public:
    Simulator(const fs::path &dir, const fs::path &tags, bool udp) : out_(dir / (udp ? "sim-udp.out" : "sim.out")) {
        std::vector<std::string> argv = {kSim, "--tags", tags.string(), "--port", "0"};
        if (udp) argv.push_back("--udp");
        pid_ = spawn(argv, out_, dir / (udp ? "sim-udp.err" : "sim.err"));
        const std::regex listening("kplc-sim listening on 127\\.0\\.0\\.1:([0-9]+)");
        for (int i = 0; i < 500 && pid_ > 0 && port_ == 0; ++i) {
            std::smatch m;
            const std::string text = slurp(out_);
            if (std::regex_search(text, m, listening)) port_ = std::stoi(m[1]);
            else std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~Simulator() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        wait_for(pid_, std::chrono::seconds(5));
    }
    [[nodiscard]] int port() const { return port_; }

private:
    fs::path out_;
    pid_t pid_ = -1;
    int port_ = 0;
};

class CliTool : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!fs::exists(kTool) || !fs::exists(kSim)) return;
        std::string pattern = (fs::temp_directory_path() / "kplc-cli-test-XXXXXX").string();
        dir_ = mkdtemp(pattern.data());
        std::ofstream(dir_ / "tags.csv") << kTags;
        sim_ = new Simulator(dir_, dir_ / "tags.csv", false);
    }
    static void TearDownTestSuite() {
        delete sim_;
        sim_ = nullptr;
        std::error_code ec;
        if (!dir_.empty()) fs::remove_all(dir_, ec);
    }
    void SetUp() override {
        if (sim_ == nullptr) GTEST_SKIP() << "the tool or the simulator is not built";
        ASSERT_NE(sim_->port(), 0) << "the simulator did not start";
    }

    // Runs the tool with the test's tag file and the simulator's port first.
    static Result kplc(std::vector<std::string> args, int port = 0, bool with_defaults = true) {
        std::vector<std::string> argv = {kTool};
        if (with_defaults) {
            argv.insert(argv.end(), {"--tags", (dir_ / "tags.csv").string(), "--timeout", "2"});
            argv.insert(argv.end(), {"--port", std::to_string(port != 0 ? port : sim_->port())});
        }
        argv.insert(argv.end(), args.begin(), args.end());
        Result r;
        const pid_t pid = spawn(argv, dir_ / "out", dir_ / "err");
        r.status = pid > 0 ? wait_for(pid) : -1;
        r.out = slurp(dir_ / "out");
        r.err = slurp(dir_ / "err");
        return r;
    }

    static inline fs::path dir_;
    static inline Simulator *sim_ = nullptr;
};

std::string join(int from, int to, int step, int mod, int shift) {
    std::string out;
    for (int i = from; i < to; ++i) {
        if (!out.empty()) out += ", ";
        out += std::to_string((i * step) % mod - shift);
    }
    return out;
}

TEST_F(CliTool, WrittenValuesReadBackForEveryTypeAndShape) {
    // Each assignment and the line a later read must print for it.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"Counter=-123456", "Counter = -123456"},
        {"Speed=-32768", "Speed = -32768"},
        {"Setpoint=65535", "Setpoint = 65535"},
        {"Total=4294967295", "Total = 4294967295"},
        {"Ratio=3.25", "Ratio = 3.25"},
        {"Precise=0.1", "Precise = 0.1"},
        {"Uptime=-9000000000000000000", "Uptime = -9000000000000000000"},
        {"Lamp=1", "Lamp = 1"},
        {"Ready=true", "Ready = 1"},
        {"Flags=1,0,1,1,0,0,0,0,0,1,0,0,0,0,0,1", "Flags = [1, 0, 1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1]"},
        {"Relays=0,1,0,0,0,0,0,0,0,0,0,0,0,0,1,1", "Relays = [0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1]"},
        {"Levels=1,2,3,4,5,6,7,8,9,10", "Levels = [1, 2, 3, 4, 5, 6, 7, 8, 9, 10]"},
        {"Grid[2,3]=-7", "Grid[2,3] = -7"},
        {"Cube=" + join(0, 24, 1, 100, 0),
         "Cube = [[[0, 1, 2, 3], [4, 5, 6, 7], [8, 9, 10, 11]], [[12, 13, 14, 15], [16, 17, 18, 19], [20, 21, "
         "22, 23]]]"},
        {"Title=Hello, world", "Title = Hello, world"},
        {"Lines=one,\"t,wo\",three,four", "Lines = [\"one\", \"t,wo\", \"three\", \"four\"]"},
        {"Motor.Speed=12", "Motor.Speed = 12"},
        {"Cell[1][2].Val=99", "Cell[1,2].Val = 99"},
        {"Main.Step=7", "Main.Step = 7"},
        {"Aux.Count=-5", "Aux.Count = -5"},
    };
    std::vector<std::string> write = {"write"}, read = {"read"}, expected;
    for (const auto &[assignment, shown] : cases) {
        write.push_back(assignment);
        read.push_back(shown.substr(0, shown.find(" = ")));
        expected.push_back(shown);
    }
    const Result w = kplc(write);
    ASSERT_EQ(w.status, 0) << w.err;
    const Result r = kplc(read);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(lines_of(r.out), expected);

    // Partial writes: a run inside an array, one bit, a shorter text.
    ASSERT_EQ(kplc({"write", "Levels[3]=70,80", "Flags[2]=0", "Title=Hi", "Lines[1]=x"}).status, 0);
    const Result again = kplc({"read", "Levels", "Flags[2]", "Flags[3]", "Title", "Lines"});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(lines_of(again.out), (std::vector<std::string>{
                                       "Levels = [1, 2, 3, 70, 80, 6, 7, 8, 9, 10]",
                                       "Flags[2] = 0",
                                       "Flags[3] = 1",
                                       "Title = Hi",
                                       "Lines = [\"one\", \"x\", \"three\", \"four\"]",
                                   }));
}

TEST_F(CliTool, LongArraysAndTextsTravelInPiecesTheDriverAccepts) {
    const std::string values = join(0, 1000, 7919, 65536, 32768);
    const std::string essay = [] {
        std::string s;
        for (int i = 0; s.size() < 499; ++i) s += "word" + std::to_string(i) + " ";
        return s.substr(0, 499);
    }();
    const Result w = kplc({"write", "Wide=" + values, "Essay=" + essay});
    ASSERT_EQ(w.status, 0) << w.err;
    const Result r = kplc({"read", "Wide", "Essay", "Wide[999]"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(lines_of(r.out), (std::vector<std::string>{"Wide = [" + values + "]", "Essay = " + essay,
                                                         "Wide[999] = " + std::to_string(999 * 7919 % 65536 - 32768)}));
}

TEST_F(CliTool, TagsTheDriverCannotServeFailWithTheDriversReason) {
    const Result w = kplc({"write", "Note=text"});
    EXPECT_EQ(w.status, 1);
    EXPECT_THAT(w.err, HasSubstr("no writer"));
    const Result r = kplc({"read", "Small"});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, HasSubstr("reading Small from 127.0.0.1:"));
    EXPECT_EQ(r.out, "");
}

TEST_F(CliTool, UnknownTagsAreNamedAndNothingIsSent) {
    for (const auto &args : {std::vector<std::string>{"read", "Counter", "Nope"},
                             std::vector<std::string>{"write", "Counter=1", "Nope=1"},
                             std::vector<std::string>{"watch", "Nope"}}) {
        const Result r = kplc(args, closed_port());  // nothing may be contacted
        EXPECT_EQ(r.status, 3) << args[0];
        EXPECT_THAT(r.err, HasSubstr("unknown tag 'Nope'")) << args[0];
        EXPECT_THAT(r.err, Not(HasSubstr("driver:"))) << args[0];
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(CliTool, AnUnreachablePlcFailsEveryCommand) {
    const uint16_t port = closed_port();
    for (const auto &args : {std::vector<std::string>{"read", "Counter"}, std::vector<std::string>{"write", "Counter=1"},
                             std::vector<std::string>{"watch", "Counter", "--count", "1"}}) {
        const Result r = kplc(args, port);
        EXPECT_EQ(r.status, 1) << args[0];
        EXPECT_THAT(r.err, HasSubstr("127.0.0.1:" + std::to_string(port) + " failed")) << args[0];
        EXPECT_EQ(r.out, "") << args[0];
    }
}

TEST_F(CliTool, BadArgumentsAndValuesAreRefusedBeforeAnyWrite) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"write", "Counter=1", "Speed=40000"}, "outside the range"},
        {{"write", "Counter=abc"}, "not an integer"},
        {{"write", "Levels=1,2"}, "10 value(s) expected, 2 given"},
        {{"write", "Levels[9]=1,2"}, "run past the end"},
        {{"write", "Title=" + std::string(21, 'x')}, "holds 20"},
        {{"write", "Lamp=yes"}, "not a BOOL"},
        {{"read"}, "no tag names"},
        {{"frobnicate"}, "unknown command"},
        {{"read", "Counter", "--timeout", "soon"}, "--timeout"},
    };
    ASSERT_EQ(kplc({"write", "Counter=31"}).status, 0);
    for (const auto &[args, message] : cases) {
        const Result r = kplc(args);
        EXPECT_EQ(r.status, 2) << ::testing::PrintToString(args);
        EXPECT_THAT(r.err, HasSubstr(message)) << ::testing::PrintToString(args);
    }
    // The valid first assignment of the first case was not carried out.
    EXPECT_EQ(kplc({"read", "Counter"}).out, "Counter = 31\n");
}

TEST_F(CliTool, TraceShowsTheFramesAndKeepsResultsApart) {
    ASSERT_EQ(kplc({"write", "Counter=5"}).status, 0);
    const Result r = kplc({"--trace", "read", "Counter"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Counter = 5\n");
    // The link start-up's first request, then the symbol resolve of "Counter".
    EXPECT_THAT(r.err, HasSubstr("> 00 00 00 06 FF FF FF F9 00 00 0C 2C 00 00 00 00\n"));
    EXPECT_THAT(r.err, HasSubstr("0C 28 00 01 00 00 00 01 00 07 00 43 00 6F 00 75 00 6E 00 74 00 65 00 72\n"));
    EXPECT_THAT(r.err, HasSubstr("\n< "));
}

TEST_F(CliTool, WatchPrintsTheValueOnceWhileItStaysTheSame) {
    ASSERT_EQ(kplc({"write", "Motor.Speed=-3"}).status, 0);
    const Result r = kplc({"watch", "Motor.Speed", "--count", "3", "--interval-ms", "20"});
    ASSERT_EQ(r.status, 0) << r.err;
    const auto lines = lines_of(r.out);
    ASSERT_EQ(lines.size(), 1u) << r.out;
    EXPECT_THAT(lines[0], ::testing::MatchesRegex("[0-9:.]+ Motor\\.Speed = -3"));
}

TEST_F(CliTool, ListShowsTheTagsAsTheDriverParsedThem) {
    // No PLC is needed, only the tag file.
    const Result l = kplc({"--tags", (dir_ / "tags.csv").string(), "list"}, 0, false);
    ASSERT_EQ(l.status, 0) << l.err;
    const auto lines = lines_of(l.out);
    ASSERT_EQ(lines.size(), 25u);
    EXPECT_THAT(lines[0], ::testing::MatchesRegex("ID +NAME +TYPE +SHAPE +SCOPE"));
    EXPECT_THAT(lines[14], ::testing::MatchesRegex("14 +Cube +INT +\\[0\\.\\.1, 0\\.\\.2, 0\\.\\.3\\] +global"));
    EXPECT_THAT(lines[16], ::testing::MatchesRegex("16 +Lines +STRING\\(20\\) +\\[0\\.\\.3\\] +global"));
    EXPECT_THAT(lines[18], ::testing::MatchesRegex("18 +Cell\\[1,2\\]\\.Val +DINT +- +global"));
    EXPECT_THAT(lines[20], ::testing::MatchesRegex("20 +Aux\\.Count +DINT +- +program Aux \\(1\\)"));
}

TEST_F(CliTool, RunsInAGivenFolderWithTheRuntimesFileName) {
    const fs::path work = dir_ / "runtime";
    fs::create_directories(work / "driver");
    fs::copy_file(dir_ / "tags.csv", work / "driver" / "PLC7F000001_3.csv", fs::copy_options::overwrite_existing);
    ASSERT_EQ(kplc({"write", "Speed=17"}).status, 0);
    const Result r =
        kplc({"--workdir", work.string(), "--dev", "3", "--port", std::to_string(sim_->port()), "read", "Speed"}, 0,
             false);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Speed = 17\n");
}

TEST_F(CliTool, TalksUdpWhenAsked) {
    Simulator udp(dir_, dir_ / "tags.csv", true);
    ASSERT_NE(udp.port(), 0);
    ASSERT_EQ(kplc({"--udp", "write", "Total=123", "Title=over udp"}, udp.port()).status, 0);
    const Result r = kplc({"--udp", "read", "Total", "Title"}, udp.port());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Total = 123\nTitle = over udp\n");
}

TEST_F(CliTool, AMissingDriverLibraryIsReported) {
    const Result r = kplc({"--lib", (dir_ / "no-such-lib.so").string(), "read", "Counter"});
    EXPECT_EQ(r.status, 4);
    EXPECT_THAT(r.err, HasSubstr("cannot load the driver library"));
}

}  // namespace
