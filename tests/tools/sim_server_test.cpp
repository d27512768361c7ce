// The simulator on the network: framing, connections, misbehaviour options,
// trace output and the command-line program.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "server.hpp"
#include "testkit/workdir.hpp"
#include "tools/sim_requests.hpp"

namespace kplc::simtest {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testkit::hex;
using testkit::to_hex;

constexpr const char *kTags = "1,Count,DINT,,4,,DM100,-1\n2,Main.Step,UINT,,2,,,0\n";

// A TCP client on the loopback network.
class Client {
public:
    explicit Client(uint16_t port, const char *address = "127.0.0.1") : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        const int on = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        inet_pton(AF_INET, address, &addr.sin_addr);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    }
    ~Client() { ::close(fd_); }

    bool connected() const { return connected_; }
    void send(const Bytes &b) { EXPECT_EQ(::send(fd_, b.data(), b.size(), MSG_NOSIGNAL), ssize_t(b.size())); }
    // What arrives within `wait`, stopping once `want` bytes are in or the peer closed.
    Bytes receive(std::size_t want, std::chrono::milliseconds wait = 2000ms) {
        Bytes out;
        const auto deadline = Clock::now() + wait;
        for (pollfd p{fd_, POLLIN, 0}; out.size() < want && !closed_;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) break;
            uint8_t buf[4096];
            const ssize_t got = ::recv(fd_, buf, sizeof buf, 0);
            closed_ = got <= 0;
            if (got > 0) out.insert(out.end(), buf, buf + got);
        }
        return out;
    }
    bool closed_by_peer(std::chrono::milliseconds wait = 2000ms) {
        receive(SIZE_MAX, wait);
        return closed_;
    }

private:
    int fd_;
    bool connected_ = false;
    bool closed_ = false;
};

struct Running {
    sim::Plc plc{kTags};
    sim::Server server;
    explicit Running(sim::ServerOptions options = {}) : server(plc, std::move(options)) { server.start(); }
};

// The reply an undisturbed simulator gives.
Bytes normal_reply(const Bytes &request) { return sim::Plc{kTags}.handle(request); }

const Bytes kCatalogue = catalogue_request(Command::ProgramCatalogue, 1);

TEST(SimServer, FramesRequestsByTheirLengthWhateverTheSegments) {
    Running sim;
    Client client(sim.server.port());
    // One request a byte at a time, then two in one segment.
    for (uint8_t byte : kCatalogue) {
        client.send({byte});
        std::this_thread::sleep_for(1ms);
    }
    Bytes expected = normal_reply(kCatalogue);
    EXPECT_EQ(client.receive(expected.size()), expected);
    Bytes two = resolve_request(5, sim::kGlobal, {u"Count"});
    const Bytes second = resolve_request(6, 0, {u"Step"});
    expected = normal_reply(two);
    two.insert(two.end(), second.begin(), second.end());
    const Bytes reply6 = normal_reply(second);
    expected.insert(expected.end(), reply6.begin(), reply6.end());
    client.send(two);
    EXPECT_EQ(client.receive(expected.size()), expected);
    EXPECT_EQ(sim.server.requests(), 3u);
}

TEST(SimServer, ClosesAConnectionAfterTheAskedNumberOfRequests) {
    Running sim({.close_after = 2});
    const Bytes reply = normal_reply(kCatalogue);
    for (int connection = 0; connection < 2; ++connection) {
        Client client(sim.server.port());
        client.send(kCatalogue);
        EXPECT_EQ(client.receive(reply.size()), reply);
        client.send(kCatalogue);
        EXPECT_EQ(client.receive(reply.size()), reply);
        EXPECT_TRUE(client.closed_by_peer());
    }
}

TEST(SimServer, MisbehavesAsAsked) {
    const Bytes reply = normal_reply(kCatalogue);
    const struct {
        const char *what;
        sim::ServerOptions options;
        std::function<void(Client &)> check;
    } cases[] = {
        {"truncate", {.truncate = 5}, [&](Client &c) { EXPECT_EQ(c.receive(99, 300ms), Bytes(reply.begin(), reply.begin() + 5)); }},
        {"garbage", {.garbage = true}, [&](Client &c) { EXPECT_NE(c.receive(reply.size()), reply); }},
        {"silent", {.silent = true}, [&](Client &c) { EXPECT_TRUE(c.receive(1, 300ms).empty()); }},
        {"refuse", {.refuse = true}, [&](Client &c) { EXPECT_TRUE(c.closed_by_peer()); }},
        {"delay", {.delay_ms = 200},
         [&](Client &c) {
             const auto start = Clock::now();
             EXPECT_EQ(c.receive(reply.size()), reply);
             EXPECT_GE(Clock::now() - start, 190ms);
         }},
        {"split", {.split = true},
         [&](Client &c) {
             Bytes all = c.receive(reply.size(), 30ms);
             EXPECT_EQ(all.size(), reply.size() / 2);
             const Bytes tail = c.receive(reply.size() - all.size());
             all.insert(all.end(), tail.begin(), tail.end());
             EXPECT_EQ(all, reply);
         }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Running sim(c.options);
        Client client(sim.server.port());
        if (!c.options.refuse) client.send(kCatalogue);
        c.check(client);
    }
}

TEST(SimServer, AHeaderThatDoesNotFrameClosesTheConnection) {
    for (const char *header : {"00 00 00 06 FF FF FF F8 00 00 0C 2C 00 00 00 00",  // complement off by one
                               "00 02 00 00 FF FD FF FF 00 00 0C 2C"}) {          // 128 KiB announced
        Running sim;
        Client client(sim.server.port());
        client.send(hex(header));
        EXPECT_TRUE(client.closed_by_peer()) << header;
    }
}

// A client that opens a new connection without closing the old one is served on both.
TEST(SimServer, ServesSeveralConnectionsSideBySide) {
    Running sim;
    Client a(sim.server.port());
    Client b(sim.server.port());
    const Bytes reply = normal_reply(kCatalogue);
    b.send(kCatalogue);
    EXPECT_EQ(b.receive(reply.size()), reply);
    a.send(kCatalogue);
    EXPECT_EQ(a.receive(reply.size()), reply);
}

TEST(SimServer, ListensOnlyOnTheAskedAddress) {
    Running sim({.listen = "127.0.0.2"});
    EXPECT_TRUE(Client(sim.server.port(), "127.0.0.2").connected());
    EXPECT_FALSE(Client(sim.server.port(), "127.0.0.1").connected());
    sim::Plc plc{kTags};
    EXPECT_THROW(sim::Server(plc, {.listen = "localhost"}).start(), std::invalid_argument);
}

TEST(SimServer, StopsPromptlyWhileAReplyIsDelayed) {
    Running sim({.delay_ms = 10000});
    Client client(sim.server.port());
    client.send(kCatalogue);
    std::this_thread::sleep_for(50ms);
    const auto start = Clock::now();
    sim.server.stop();
    EXPECT_LT(Clock::now() - start, 1s);
    EXPECT_TRUE(client.closed_by_peer());
}

TEST(SimServer, TracePrintsEveryRequestAndReplyInHex) {
    const Bytes request = resolve_request(4, sim::kGlobal, {u"Count"});
    const Bytes reply = normal_reply(request);
    ::testing::internal::CaptureStdout();
    {
        Running sim({.truncate = 20, .trace = true});
        Client client(sim.server.port());
        client.send(request);
        client.receive(20);
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "> " + to_hex(request) + "\n< " + to_hex(std::span(reply).first(20)) + "\n");
}

// The program as scripts use it: one line naming the port, service until SIGTERM.
TEST(SimProgram, AnnouncesItsPortServesAndStopsOnSigterm) {
    std::string program = std::string(KPLC_BINARY_DIR) + "/tools/kplc-sim/kplc-sim";
    if (!std::filesystem::exists(program)) GTEST_SKIP() << "kplc-sim is not built";
    testkit::ScopedWorkdir dir;
    std::string tags = dir.path() + "/tags.csv";
    std::ofstream(tags) << kTags;
    const auto run = [&](std::string tag_file, int &out) {
        int fds[2];
        EXPECT_EQ(::pipe(fds), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        std::string option = "--tags";
        char *argv[] = {program.data(), option.data(), tag_file.data(), nullptr};
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        out = fds[0];
        return pid;
    };
    const auto exit_code = [](pid_t pid) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };

    int out = -1;
    const pid_t pid = run(tags, out);
    std::string line;
    char ch = 0;
    for (pollfd p{out, POLLIN, 0}; ::poll(&p, 1, 5000) > 0 && ::read(out, &ch, 1) == 1 && ch != '\n';) line += ch;
    const std::string prefix = "kplc-sim listening on 127.0.0.1:";
    ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
    {
        Client client(static_cast<uint16_t>(std::stoi(line.substr(prefix.size()))));
        client.send(kCatalogue);
        EXPECT_EQ(client.receive(normal_reply(kCatalogue).size()), normal_reply(kCatalogue));
    }
    ::kill(pid, SIGTERM);
    EXPECT_EQ(exit_code(pid), 0);
    ::close(out);
    EXPECT_EQ(exit_code(run(dir.path() + "/none.csv", out)), 1);
    ::close(out);
}

}  // namespace
}  // namespace kplc::simtest
