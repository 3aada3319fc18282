// Tests of the IPC channels over real Unix datagram sockets, in the sandbox's private /tmp/ktipc.
#include "lib/ktipc.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using Channel = std::unique_ptr<ktipc, decltype(&ktipc_close)>;

Channel hold(ktipc *ipc) {
    return Channel(ipc, ktipc_close);
}

long ms_since(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

std::string server_path(const std::string &name) {
    return "/tmp/ktipc/ipc-" + name + ".sock";
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

mode_t permissions(const char *path) {
    struct stat st {};
    stat(path, &st);
    return st.st_mode & 07777;
}

bool nonblocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

void make_file(const std::string &path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0) << path;
    close(fd);
}

// Sets a umask for one scope.
struct ScopedUmask {
    mode_t old;
    explicit ScopedUmask(mode_t mask) : old(umask(mask)) {}
    ~ScopedUmask() { umask(old); }
};

struct IpcTest : ::testing::Test {
    void SetUp() override {
        if (std::getenv("HOTPLUGD_SANDBOX") == nullptr)
            GTEST_SKIP() << "needs tests/sandbox/run: it works in /tmp/ktipc";
    }
};

TEST_F(IpcTest, DirectoryAndSocketOpenToAllWhateverTheUmask) {
    ScopedUmask mask(077);
    ASSERT_EQ(ktipc_make_dir(), 0) << "the existing directory is accepted";
    EXPECT_EQ(permissions(KTIPC_DIR), 0777u);

    Channel server = hold(ktipc_create_serveripc("modes", 1));
    ASSERT_NE(server, nullptr);
    struct stat st {};
    ASSERT_EQ(stat(server_path("modes").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0777u);
    EXPECT_TRUE(nonblocking(server->fd));
    EXPECT_STREQ(server->addr.sun_path, server_path("modes").c_str());
    EXPECT_EQ(server->addr.sun_family, AF_UNIX);

    server.reset();
    EXPECT_FALSE(exists(server_path("modes"))) << "closing removes the socket file";
}

TEST_F(IpcTest, DirectoryIsMadeWhenMissing) {
    // A tmpfs of our own over /tmp, inside the sandbox's private namespace, hides its
    // /tmp/ktipc so that the directory really has to be made.
    ASSERT_EQ(mount("hotplugd-test", "/tmp", "tmpfs", 0, "mode=1777"), 0) << std::strerror(errno);
    {
        ScopedUmask mask(077);
        ASSERT_FALSE(exists(KTIPC_DIR));
        EXPECT_EQ(ktipc_make_dir(), 0);
        EXPECT_EQ(permissions(KTIPC_DIR), 0777u);
        EXPECT_EQ(rmdir(KTIPC_DIR), 0);

        Channel client = hold(ktipc_create_clientipc(42, 0));
        EXPECT_NE(client, nullptr) << "creating a channel makes the directory too";
        EXPECT_TRUE(exists("/tmp/ktipc/ipc-42.sock"));
        client.reset();
        EXPECT_EQ(rmdir(KTIPC_DIR), 0);

        make_file(KTIPC_DIR);
        EXPECT_EQ(ktipc_make_dir(), -1) << "a file is no directory";
        EXPECT_EQ(ktipc_create_serveripc("x", 1), nullptr);
        EXPECT_EQ(ktipc_create_clientipc(7, 1), nullptr);
        Channel anonymous = hold(ktipc_create_clientipc(-1, 0));
        EXPECT_NE(anonymous, nullptr) << "an anonymous channel needs no directory";
        unlink(KTIPC_DIR);
    }
    ASSERT_EQ(umount("/tmp"), 0) << std::strerror(errno);
}

TEST_F(IpcTest, TwoProcessesExchangeByNameAndByAddress) {
    Channel server = hold(ktipc_create_serveripc("unittest", 1));
    ASSERT_NE(server, nullptr);

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ktipc *client = ktipc_create_clientipc(getpid(), 1);
        char buf[16] = {};
        int code = 0;
        if (client == nullptr)
            code = 1;
        else if (ktipc_send_srv(client, "ping", 4, "unittest") != 4)
            code = 2;
        else if (ktipc_receive(client, buf, sizeof buf, 5000, nullptr, nullptr) != 4 ||
                 std::memcmp(buf, "pong", 4) != 0)
            code = 3;
        else if (ktipc_send_path(client, "path", 4, server_path("unittest").c_str()) != 4)
            code = 4;
        ktipc_close(client);
        _exit(code);
    }

    char buf[16] = {};
    sockaddr_un from;
    socklen_t from_len = sizeof from;
    EXPECT_EQ(ktipc_receive(server.get(), buf, sizeof buf, 5000,
                            reinterpret_cast<sockaddr *>(&from), &from_len),
              4);
    EXPECT_EQ(std::string(buf, 4), "ping");
    const std::string client_path = "/tmp/ktipc/ipc-" + std::to_string(child) + ".sock";
    EXPECT_STREQ(from.sun_path, client_path.c_str()) << "numbered channel of the child's pid";
    EXPECT_EQ(
        ktipc_send_addr(server.get(), "pong", 4, reinterpret_cast<sockaddr *>(&from), from_len), 4);
    EXPECT_EQ(ktipc_receive(server.get(), buf, sizeof buf, 5000, nullptr, nullptr), 4);
    EXPECT_EQ(std::string(buf, 4), "path");

    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    EXPECT_FALSE(exists(client_path));
}

TEST_F(IpcTest, AnonymousChannelSendsButHasNoAddress) {
    Channel server = hold(ktipc_create_serveripc("anon", 1));
    ASSERT_NE(server, nullptr);
    for (ktipc *made : {ktipc_create(nullptr, 0), ktipc_create_clientipc(-1, 1)}) {
        Channel anonymous = hold(made);
        ASSERT_NE(anonymous, nullptr);
        EXPECT_GE(anonymous->fd, 0);
        EXPECT_EQ(anonymous->addr.sun_family, AF_UNIX);
        EXPECT_EQ(anonymous->addr.sun_path[0], '\0');
        EXPECT_TRUE(nonblocking(anonymous->fd));
        EXPECT_EQ(ktipc_send_srv(anonymous.get(), "stop", 4, "anon"), 4);

        char buf[8];
        sockaddr_un from;
        socklen_t from_len = sizeof from;
        EXPECT_EQ(ktipc_receive(server.get(), buf, sizeof buf, 5000,
                                reinterpret_cast<sockaddr *>(&from), &from_len),
                  4);
        EXPECT_LE(from_len, sizeof(sa_family_t)) << "an unbound sender has no path";
    }
    ktipc_close(nullptr);
}

TEST_F(IpcTest, EmptyDatagramAndCutDatagram) {
    Channel server = hold(ktipc_create_serveripc("cut", 1));
    Channel client = hold(ktipc_create_clientipc(1234, 1));
    ASSERT_TRUE(server && client);
    const auto *to = reinterpret_cast<const sockaddr *>(&client->addr);

    // An empty datagram reads as 0, like a time-out, but arrives at once with its sender.
    EXPECT_EQ(ktipc_send_addr(server.get(), "", 0, to, sizeof client->addr), 0);
    char buf[64];
    sockaddr_un from{};
    socklen_t from_len = sizeof from;
    auto start = Clock::now();
    EXPECT_EQ(ktipc_receive(client.get(), buf, sizeof buf, 3000,
                            reinterpret_cast<sockaddr *>(&from), &from_len),
              0);
    EXPECT_LT(ms_since(start), 1000);
    EXPECT_STREQ(from.sun_path, server_path("cut").c_str());

    char big[100];
    for (size_t i = 0; i < sizeof big; ++i)
        big[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(ktipc_send_addr(server.get(), big, sizeof big, to, sizeof client->addr), 100);
    std::memset(buf, 0, sizeof buf);
    EXPECT_EQ(ktipc_receive(client.get(), buf, 10, 3000, nullptr, nullptr), 10);
    EXPECT_EQ(std::string(buf, 11), std::string(big, 10) + '\0');
    EXPECT_EQ(ktipc_receive(client.get(), buf, sizeof buf, 0, nullptr, nullptr), 0)
        << "the rest of a cut datagram is gone";
}

TEST_F(IpcTest, SendToFullQueueFailsAtOnce) {
    Channel server = hold(ktipc_create_serveripc("full", 1));
    Channel client = hold(ktipc_create(nullptr, 0));
    ASSERT_TRUE(server && client);
    char datagram[128] = {};
    int sent = 0;
    int result = 0;
    auto start = Clock::now();
    while (sent < 100000 &&
           (result = ktipc_send_srv(client.get(), datagram, sizeof datagram, "full")) == 128)
        ++sent;
    int error = errno;
    EXPECT_LT(ms_since(start), 2000) << "no send waited for room";
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EAGAIN);
    EXPECT_GT(sent, 0);
}

TEST_F(IpcTest, FailureAfterAPathUnlinksIt) {
    const std::string path = server_path("taken");

    make_file(path);
    EXPECT_EQ(ktipc_create(path.c_str(), 0), nullptr) << "a regular file is in the way";
    EXPECT_FALSE(exists(path));

    make_file(path);
    EXPECT_EQ(ktipc_create(path.c_str(), 1), nullptr) << "only sockets count as stale";
    EXPECT_FALSE(exists(path));

    Channel owner = hold(ktipc_create(path.c_str(), 0));
    ASSERT_NE(owner, nullptr);
    EXPECT_EQ(ktipc_create(path.c_str(), 0), nullptr) << "without flag 1 a live socket stays";
    EXPECT_FALSE(exists(path)) << "and yet its file is removed";
    Channel sender = hold(ktipc_create(nullptr, 0));
    EXPECT_EQ(ktipc_send_srv(sender.get(), "x", 1, "taken"), -1) << "the owner is unreachable";

    const std::string long_path = "/tmp/ktipc/" + std::string(97, 'l');
    ASSERT_EQ(long_path.size(), 108u);
    make_file(long_path);
    EXPECT_EQ(ktipc_create(long_path.c_str(), 1), nullptr);
    EXPECT_FALSE(exists(long_path));

    EXPECT_EQ(ktipc_create("/tmp/ktipc/no/such/dir.sock", 1), nullptr);
}

TEST_F(IpcTest, SecondServerWithFlagOneTakesOver) {
    Channel first = hold(ktipc_create_serveripc("twice", 1));
    Channel second = hold(ktipc_create_serveripc("twice", 1));
    ASSERT_TRUE(first && second);
    Channel sender = hold(ktipc_create(nullptr, 0));
    EXPECT_EQ(ktipc_send_srv(sender.get(), "hi", 2, "twice"), 2);
    char buf[8];
    EXPECT_EQ(ktipc_receive(second.get(), buf, sizeof buf, 3000, nullptr, nullptr), 2);
    EXPECT_EQ(ktipc_receive(first.get(), buf, sizeof buf, 0, nullptr, nullptr), 0);
}

TEST_F(IpcTest, NamesTooLongForThePath) {
    // "/tmp/ktipc/ipc-" and ".sock" take 20 of the 107 characters a path may have.
    const std::string longest(87, 'n');
    Channel server = hold(ktipc_create_serveripc(longest.c_str(), 1));
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(std::strlen(server->addr.sun_path), 107u);
    Channel sender = hold(ktipc_create(nullptr, 0));
    EXPECT_EQ(ktipc_send_srv(sender.get(), "x", 1, longest.c_str()), 1);
    char buf[8];
    EXPECT_EQ(ktipc_receive(server.get(), buf, sizeof buf, 3000, nullptr, nullptr), 1);
    EXPECT_EQ(ktipc_send_srv(sender.get(), "x", 1, (longest + "n").c_str()), -1);

    const std::string name(110, 'm');
    Channel cut = hold(ktipc_create_serveripc(name.c_str(), 1));
    ASSERT_NE(cut, nullptr) << "the path is silently cut";
    const std::string cut_path = server_path(name).substr(0, 107);
    EXPECT_STREQ(cut->addr.sun_path, cut_path.c_str());
    EXPECT_TRUE(exists(cut_path));
    EXPECT_EQ(ktipc_send_srv(sender.get(), "x", 1, name.c_str()), -1);
    EXPECT_EQ(ktipc_send_path(sender.get(), "x", 1, cut_path.c_str()), 1);
}

TEST_F(IpcTest, ReceiveWaitsForItsLimit) {
    Channel quiet = hold(ktipc_create_serveripc("quiet", 1));
    ASSERT_NE(quiet, nullptr);
    char buf[8];
    auto start = Clock::now();
    EXPECT_EQ(ktipc_receive(quiet.get(), buf, sizeof buf, 1500, nullptr, nullptr), 0);
    long wall = ms_since(start);
    EXPECT_GE(wall, 1450);
    EXPECT_LT(wall, 2400) << "the limit is split into seconds and their remainder";

    start = Clock::now();
    EXPECT_EQ(ktipc_receive(quiet.get(), buf, sizeof buf, 0, nullptr, nullptr), 0);
    EXPECT_LT(ms_since(start), 500);

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        usleep(200 * 1000);
        ktipc *sender = ktipc_create(nullptr, 0);
        int sent = ktipc_send_srv(sender, "late", 4, "quiet");
        ktipc_close(sender);
        _exit(sent == 4 ? 0 : 1);
    }
    EXPECT_EQ(ktipc_receive(quiet.get(), buf, sizeof buf, -1, nullptr, nullptr), 4)
        << "a negative limit waits as long as it takes";
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

void on_alarm(int) {
}

TEST_F(IpcTest, InterruptedReceivePrintsItsError) {
    Channel quiet = hold(ktipc_create_serveripc("interrupted", 1));
    ASSERT_NE(quiet, nullptr);

    struct sigaction action {};
    action.sa_handler = on_alarm;
    sigemptyset(&action.sa_mask);
    struct sigaction old_action {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &old_action), 0);

    int capture[2];
    ASSERT_EQ(pipe(capture), 0);
    std::fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    dup2(capture[1], STDOUT_FILENO);
    close(capture[1]);

    itimerval timer{};
    timer.it_value.tv_usec = 200 * 1000;
    setitimer(ITIMER_REAL, &timer, nullptr);
    char buf[8];
    int result = ktipc_receive(quiet.get(), buf, sizeof buf, 5000, nullptr, nullptr);

    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    sigaction(SIGALRM, &old_action, nullptr);
    std::string printed;
    char c;
    while (read(capture[0], &c, 1) == 1)
        printed += c;
    close(capture[0]);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(printed, "error(" + std::to_string(EINTR) + ")\n");
}

TEST_F(IpcTest, NullArgumentsFail) {
    Channel ipc = hold(ktipc_create_serveripc("nulls", 1));
    ASSERT_NE(ipc, nullptr);
    char buf[8];
    sockaddr_un from;
    const auto *to = reinterpret_cast<const sockaddr *>(&ipc->addr);
    EXPECT_EQ(ktipc_create_serveripc(nullptr, 1), nullptr);
    EXPECT_EQ(ktipc_send_srv(nullptr, buf, 1, "nulls"), -1);
    EXPECT_EQ(ktipc_send_srv(ipc.get(), nullptr, 1, "nulls"), -1);
    EXPECT_EQ(ktipc_send_srv(ipc.get(), buf, 1, nullptr), -1);
    EXPECT_EQ(ktipc_send_path(nullptr, buf, 1, ipc->addr.sun_path), -1);
    EXPECT_EQ(ktipc_send_path(ipc.get(), nullptr, 1, ipc->addr.sun_path), -1);
    EXPECT_EQ(ktipc_send_path(ipc.get(), buf, 1, nullptr), -1);
    EXPECT_EQ(ktipc_send_addr(nullptr, buf, 1, to, sizeof ipc->addr), -1);
    EXPECT_EQ(ktipc_send_addr(ipc.get(), nullptr, 0, to, sizeof ipc->addr), -1);
    EXPECT_EQ(ktipc_send_addr(ipc.get(), buf, 1, nullptr, sizeof ipc->addr), -1);

    // A datagram waits throughout, so each refusal below is told apart from a time-out.
    ASSERT_EQ(ktipc_send_path(ipc.get(), "x", 1, ipc->addr.sun_path), 1);
    EXPECT_EQ(ktipc_receive(nullptr, buf, sizeof buf, 0, nullptr, nullptr), -1);
    EXPECT_EQ(ktipc_receive(ipc.get(), nullptr, sizeof buf, 0, nullptr, nullptr), -1);
    EXPECT_EQ(ktipc_receive(ipc.get(), buf, 0, 0, nullptr, nullptr), -1);
    EXPECT_EQ(
        ktipc_receive(ipc.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), nullptr),
        -1);
    EXPECT_EQ(ktipc_receive(ipc.get(), buf, sizeof buf, 0, nullptr, nullptr), 1)
        << "still there after the refusals";
}

} // namespace
