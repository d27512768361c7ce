// The simulator on the network: framing, connections, misbehaviour options,
// trace output and the command-line program.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "plc.hpp"
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

// A plain socket client on the loopback network.
class Client {
public:
    explicit Client(uint16_t port, bool udp = false, const char *address = "127.0.0.1") {
        fd_ = ::socket(AF_INET, udp ? SOCK_DGRAM : SOCK_STREAM, 0);
        if (fd_ < 0) throw std::runtime_error("socket");
        const int on = 1;
        if (!udp) ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        inet_pton(AF_INET, address, &addr.sin_addr);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    }
    ~Client() { ::close(fd_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    [[nodiscard]] bool connected() const { return connected_; }
    void send(const Bytes &bytes) { ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size())); }

    // What arrives within `wait`, stopping early once `want` bytes are in or the peer closed.
    Bytes receive(std::size_t want, std::chrono::milliseconds wait = 2000ms) {
        Bytes out;
        const auto deadline = Clock::now() + wait;
        while (out.size() < want) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            pollfd p{fd_, POLLIN, 0};
            if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) break;
            uint8_t buf[8192];
            const ssize_t got = ::recv(fd_, buf, sizeof buf, 0);
            if (got <= 0) {
                closed_ = true;
                break;
            }
            out.insert(out.end(), buf, buf + got);
        }
        return out;
    }
    // True when the peer closes the connection within `wait`.
    bool closed_by_peer(std::chrono::milliseconds wait = 2000ms) {
        receive(SIZE_MAX, wait);
        return closed_;
    }

private:
    int fd_ = -1;
    bool connected_ = false;
    bool closed_ = false;
};

struct Running {
    sim::Plc plc{kTags};
    sim::Server server;
    explicit Running(sim::ServerOptions options = {}) : server(plc, std::move(options)) { server.start(); }
};

// The reply an undisturbed simulator gives.
Bytes normal_reply(const Bytes &request) {
    sim::Plc plc{kTags};
    return plc.handle(request);
}

const Bytes kCatalogue = catalogue_request(Command::ProgramCatalogue, 1);

TEST(SimServer, FramesRequestsByTheirLengthWhateverTheSegments) {
    Running sim;
    Client client(sim.server.port());
    ASSERT_TRUE(client.connected());
    // One request a byte at a time, then two in one segment.
    for (uint8_t byte : kCatalogue) {
        client.send({byte});
        std::this_thread::sleep_for(1ms);
    }
    const Bytes first = normal_reply(kCatalogue);
    EXPECT_EQ(client.receive(first.size()), first);
    Bytes two = resolve_request(5, sim::kGlobal, {u"Count"});
    const Bytes second = resolve_request(6, 0, {u"Step"});
    two.insert(two.end(), second.begin(), second.end());
    client.send(two);
    const Bytes reply5 = normal_reply(resolve_request(5, sim::kGlobal, {u"Count"}));
    const Bytes reply6 = normal_reply(second);
    const Bytes both = client.receive(reply5.size() + reply6.size());
    ASSERT_EQ(both.size(), reply5.size() + reply6.size());
    EXPECT_EQ(Bytes(both.begin(), both.begin() + static_cast<std::ptrdiff_t>(reply5.size())), reply5);
    EXPECT_EQ(Bytes(both.begin() + static_cast<std::ptrdiff_t>(reply5.size()), both.end()), reply6);
    EXPECT_EQ(sim.server.requests(), 3u);
}

TEST(SimServer, ClosesAConnectionAfterTheAskedNumberOfRequests) {
    Running sim({.close_after = 2});
    const Bytes reply = normal_reply(kCatalogue);
    for (int round = 0; round < 2; ++round) {
        Client client(sim.server.port());
        client.send(kCatalogue);
        EXPECT_EQ(client.receive(reply.size()), reply);
        client.send(kCatalogue);
        EXPECT_EQ(client.receive(reply.size()), reply);
        EXPECT_TRUE(client.closed_by_peer());
    }
    EXPECT_EQ(sim.server.connections(), 2u);
}

TEST(SimServer, MisbehavesAsAsked) {
    const Bytes reply = normal_reply(kCatalogue);
    const struct {
        const char *what;
        sim::ServerOptions options;
        std::function<void(Client &)> check;
    } cases[] = {
        {"truncate", {.truncate = 5},
         [&](Client &c) { EXPECT_EQ(c.receive(reply.size(), 300ms), Bytes(reply.begin(), reply.begin() + 5)); }},
        {"garbage", {.garbage = true},
         [&](Client &c) {
             const Bytes got = c.receive(reply.size());
             EXPECT_EQ(got.size(), reply.size());
             EXPECT_NE(got, reply);
         }},
        {"silent", {.silent = true},
         [&](Client &c) {
             EXPECT_TRUE(c.receive(1, 300ms).empty());
             EXPECT_FALSE(c.closed_by_peer(10ms));
         }},
        {"delay", {.delay_ms = 200},
         [&](Client &c) {
             const auto start = Clock::now();
             EXPECT_EQ(c.receive(reply.size()), reply);
             EXPECT_GE(Clock::now() - start, 190ms);
         }},
        {"split", {.split = true},
         [&](Client &c) {
             const Bytes head = c.receive(reply.size(), 30ms);
             EXPECT_EQ(head.size(), reply.size() / 2);
             Bytes all = head;
             const Bytes tail = c.receive(reply.size() - head.size());
             all.insert(all.end(), tail.begin(), tail.end());
             EXPECT_EQ(all, reply);
         }},
        {"refuse", {.refuse = true}, [&](Client &c) { EXPECT_TRUE(c.closed_by_peer()); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Running sim(c.options);
        Client client(sim.server.port());
        ASSERT_TRUE(client.connected());
        // A refusing simulator may already have closed the connection.
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

TEST(SimServer, AnswersDatagrams) {
    Running sim({.udp = true});
    Client client(sim.server.port(), true);
    const Bytes request = resolve_request(3, 0, {u"Step"});
    client.send(request);
    EXPECT_EQ(client.receive(1), normal_reply(request));
}

TEST(SimServer, ListensOnlyOnTheAskedAddress) {
    Running sim({.listen = "127.0.0.2"});
    EXPECT_TRUE(Client(sim.server.port(), false, "127.0.0.2").connected());
    EXPECT_FALSE(Client(sim.server.port(), false, "127.0.0.1").connected());
    sim::Plc plc{kTags};
    sim::Server bad(plc, {.listen = "localhost"});
    EXPECT_THROW(bad.start(), std::invalid_argument);
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
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "> " + to_hex(request) + "\n< " + to_hex(std::span(reply).first(20)) + "\n");
}

// The program as scripts use it: one line naming the port, then service until
// SIGTERM.
TEST(SimProgram, AnnouncesItsPortServesAndStopsOnSigterm) {
    const std::string program = std::string(KPLC_BINARY_DIR) + "/tools/kplc-sim/kplc-sim";
    if (!std::filesystem::exists(program)) GTEST_SKIP() << "kplc-sim is not built";
    testkit::ScopedWorkdir dir;
    const std::string tags = dir.path() + "/tags.csv";
    std::ofstream(tags) << kTags;

    const auto run = [&](std::vector<std::string> args, int &out_fd) {
        int pipe_fds[2];
        EXPECT_EQ(::pipe(pipe_fds), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 1);
        posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        args.insert(args.begin(), program);
        std::vector<char *> argv;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipe_fds[1]);
        out_fd = pipe_fds[0];
        return pid;
    };
    const auto wait_status = [](pid_t pid) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };

    int out = -1;
    const pid_t pid = run({"--tags", tags, "--port", "0"}, out);
    std::string line;
    char ch = 0;
    pollfd p{out, POLLIN, 0};
    while (::poll(&p, 1, 5000) > 0 && ::read(out, &ch, 1) == 1 && ch != '\n') line += ch;
    const std::string prefix = "kplc-sim listening on 127.0.0.1:";
    ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
    const int port = std::stoi(line.substr(prefix.size()));
    {
        Client client(static_cast<uint16_t>(port));
        client.send(kCatalogue);
        EXPECT_EQ(client.receive(normal_reply(kCatalogue).size()), normal_reply(kCatalogue));
    }
    ::kill(pid, SIGTERM);
    EXPECT_EQ(wait_status(pid), 0);
    ::close(out);

    const pid_t bad = run({"--tags", tags, "--port", "70000"}, out);
    EXPECT_EQ(wait_status(bad), 2);
    ::close(out);
    const pid_t missing = run({"--tags", dir.path() + "/none.csv"}, out);
    EXPECT_EQ(wait_status(missing), 1);
    ::close(out);
}

}  // namespace
}  // namespace kplc::simtest
