// Tests of the IPC channels over real Unix datagram sockets, in the sandbox's private /tmp/ktipc.
#include "lib/ktipc.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
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

// The file's type and permission bits; 0 when there is no file.
mode_t mode_of(const std::string &path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & (S_IFMT | 07777) : 0;
}

void make_file(const std::string &path) {
    close(open(path.c_str(), O_WRONLY | O_CREAT, 0600));
}

sockaddr *as_addr(sockaddr_un *addr) {
    return reinterpret_cast<sockaddr *>(addr);
}

struct IpcTest : ::testing::Test {
    void SetUp() override {
        if (std::getenv("HOTPLUGD_SANDBOX") == nullptr)
            GTEST_SKIP() << "needs tests/sandbox/run: it works in /tmp/ktipc";
    }
};

TEST_F(IpcTest, DirectoryAndSocketOpenToAllWhateverTheUmask) {
    // A tmpfs of our own over /tmp, inside the sandbox's private namespace, hides its
    // /tmp/ktipc so that creating a channel has to make the directory.
    ASSERT_EQ(mount("hotplugd-test", "/tmp", "tmpfs", 0, "mode=1777"), 0) << std::strerror(errno);
    mode_t old_mask = umask(077);
    Channel server = hold(ktipc_create_serveripc("modes", 1));
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(mode_of(KTIPC_DIR), S_IFDIR | 0777);
    EXPECT_EQ(mode_of(server_path("modes")), S_IFSOCK | 0777);
    chmod(KTIPC_DIR, 0700);
    EXPECT_EQ(ktipc_make_dir(), 0) << "an existing directory is accepted";
    EXPECT_EQ(mode_of(KTIPC_DIR), S_IFDIR | 0777) << "and opened to all again";
    server.reset();
    EXPECT_EQ(mode_of(server_path("modes")), 0u) << "closing removes the socket file";

    EXPECT_EQ(rmdir(KTIPC_DIR), 0);
    make_file(KTIPC_DIR);
    EXPECT_EQ(ktipc_make_dir(), -1) << "a file is no directory";
    EXPECT_EQ(ktipc_create_clientipc(7, 1), nullptr);
    EXPECT_NE(hold(ktipc_create_clientipc(-1, 0)), nullptr) << "anonymous needs no directory";
    unlink(KTIPC_DIR);
    umask(old_mask);
    ASSERT_EQ(umount("/tmp"), 0) << std::strerror(errno);
}

TEST_F(IpcTest, TwoProcessesExchangeByNameAndByAddress) {
    Channel server = hold(ktipc_create_serveripc("unittest", 1));
    ASSERT_NE(server, nullptr);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ktipc *client = ktipc_create_clientipc(getpid(), 1);
        char buf[8];
        bool ok = client != nullptr && ktipc_send_srv(client, "ping", 4, "unittest") == 4 &&
                  ktipc_receive(client, buf, sizeof buf, 5000, nullptr, nullptr) == 4 &&
                  std::memcmp(buf, "pong", 4) == 0 &&
                  ktipc_send_path(client, "path", 4, server_path("unittest").c_str()) == 4;
        ktipc_close(client);
        _exit(ok ? 0 : 1);
    }

    char buf[8] = {};
    sockaddr_un from;
    socklen_t from_len = sizeof from;
    EXPECT_EQ(ktipc_receive(server.get(), buf, sizeof buf, 5000, as_addr(&from), &from_len), 4);
    EXPECT_EQ(std::string(buf, 4), "ping");
    EXPECT_STREQ(from.sun_path, server_path(std::to_string(child)).c_str()) << "numbered by pid";
    EXPECT_EQ(ktipc_send_addr(server.get(), "pong", 4, as_addr(&from), from_len), 4);
    // A datagram longer than the buffer is cut, and the rest of it is lost.
    EXPECT_EQ(ktipc_receive(server.get(), buf, 2, 5000, nullptr, nullptr), 2);
    EXPECT_EQ(std::string(buf, 2), "pa");
    EXPECT_EQ(ktipc_receive(server.get(), buf, sizeof buf, 0, nullptr, nullptr), 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "the child's side failed";
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
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_LT(ms_since(start), 2000) << "no send waited for room";
    EXPECT_EQ(result, -1);
    EXPECT_GT(sent, 0);
}

TEST_F(IpcTest, CreateOverAnExistingPath) {
    const std::string path = server_path("taken");
    Channel first = hold(ktipc_create(path.c_str(), 0));
    Channel second = hold(ktipc_create(path.c_str(), 1));
    ASSERT_TRUE(first && second) << "flag 1 removes the earlier socket file and binds anew";
    Channel sender = hold(ktipc_create(nullptr, 0));
    EXPECT_EQ(ktipc_send_srv(sender.get(), "hi", 2, "taken"), 2);
    char buf[8];
    EXPECT_EQ(ktipc_receive(second.get(), buf, sizeof buf, 3000, nullptr, nullptr), 2);

    // Every failure once a path was given unlinks it, even a live socket without flag 1.
    EXPECT_EQ(ktipc_create(path.c_str(), 0), nullptr);
    EXPECT_EQ(mode_of(path), 0u);
    const std::string long_path = "/tmp/ktipc/" + std::string(97, 'l');
    for (int flags : {0, 1}) {
        // Only a socket file counts as stale; 108 characters leave no room for the terminator.
        for (const std::string &p : {path, long_path}) {
            make_file(p);
            EXPECT_EQ(ktipc_create(p.c_str(), flags), nullptr) << p << " flags " << flags;
            EXPECT_EQ(mode_of(p), 0u) << p << " flags " << flags;
        }
    }
}

TEST_F(IpcTest, NamesTooLongForThePath) {
    // "/tmp/ktipc/ipc-" and ".sock" take 20 of the 107 characters a path may have.
    const std::string longest(87, 'n');
    Channel server = hold(ktipc_create_serveripc(longest.c_str(), 1));
    Channel sender = hold(ktipc_create(nullptr, 0));
    ASSERT_TRUE(server && sender);
    EXPECT_EQ(ktipc_send_srv(sender.get(), "x", 1, longest.c_str()), 1);

    const std::string name(110, 'm');
    Channel cut = hold(ktipc_create_serveripc(name.c_str(), 1));
    ASSERT_NE(cut, nullptr) << "the path is silently cut";
    EXPECT_EQ(server_path(name).compare(0, 107, cut->addr.sun_path), 0);
    EXPECT_EQ(ktipc_send_srv(sender.get(), "x", 1, name.c_str()), -1);
}

TEST_F(IpcTest, ReceiveLimits) {
    Channel quiet = hold(ktipc_create_serveripc("quiet", 1));
    ASSERT_NE(quiet, nullptr);
    char buf[8];
    auto start = Clock::now();
    EXPECT_EQ(ktipc_receive(quiet.get(), buf, sizeof buf, 1500, nullptr, nullptr), 0);
    long wall = ms_since(start);
    EXPECT_GE(wall, 1450);
    EXPECT_LT(wall, 2400) << "the limit is split into seconds and their remainder";

    // No limit: still waiting when a signal interrupts it, which is told on standard output.
    struct sigaction action {};
    struct sigaction old_action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &old_action), 0);
    itimerval timer{};
    timer.it_value.tv_usec = 200 * 1000;
    setitimer(ITIMER_REAL, &timer, nullptr);
    testing::internal::CaptureStdout();
    start = Clock::now();
    EXPECT_EQ(ktipc_receive(quiet.get(), buf, sizeof buf, -1, nullptr, nullptr), -1);
    EXPECT_GE(ms_since(start), 150);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "error(" + std::to_string(EINTR) + ")\n");
    sigaction(SIGALRM, &old_action, nullptr);
}

TEST_F(IpcTest, ArgumentChecksAndEmptyDatagram) {
    Channel ipc = hold(ktipc_create_serveripc("nulls", 1));
    ASSERT_NE(ipc, nullptr);
    char buf[8];
    sockaddr_un from{};
    const char *path = ipc->addr.sun_path;
    const auto *to = as_addr(&ipc->addr);
    ktipc_close(nullptr);
    EXPECT_EQ(ktipc_create_serveripc(nullptr, 1), nullptr);
    EXPECT_EQ(ktipc_send_srv(nullptr, buf, 1, "nulls"), -1);
    EXPECT_EQ(ktipc_send_srv(ipc.get(), nullptr, 1, "nulls"), -1);
    EXPECT_EQ(ktipc_send_srv(ipc.get(), buf, 1, nullptr), -1);
    EXPECT_EQ(ktipc_send_path(nullptr, buf, 1, path), -1);
    EXPECT_EQ(ktipc_send_path(ipc.get(), nullptr, 1, path), -1);
    EXPECT_EQ(ktipc_send_path(ipc.get(), buf, 1, nullptr), -1);
    EXPECT_EQ(ktipc_send_addr(nullptr, buf, 1, to, sizeof ipc->addr), -1);
    EXPECT_EQ(ktipc_send_addr(ipc.get(), nullptr, 0, to, sizeof ipc->addr), -1);
    EXPECT_EQ(ktipc_send_addr(ipc.get(), buf, 1, nullptr, sizeof ipc->addr), -1);

    // A datagram waits throughout, so each refusal below is told apart from a time-out.
    ASSERT_EQ(ktipc_send_path(ipc.get(), "x", 1, path), 1);
    EXPECT_EQ(ktipc_receive(nullptr, buf, sizeof buf, 0, nullptr, nullptr), -1);
    EXPECT_EQ(ktipc_receive(ipc.get(), nullptr, sizeof buf, 0, nullptr, nullptr), -1);
    EXPECT_EQ(ktipc_receive(ipc.get(), buf, 0, 0, nullptr, nullptr), -1);
    EXPECT_EQ(ktipc_receive(ipc.get(), buf, sizeof buf, 0, as_addr(&from), nullptr), -1);
    EXPECT_EQ(ktipc_receive(ipc.get(), buf, sizeof buf, 0, nullptr, nullptr), 1)
        << "still there after the refusals";

    // An empty datagram reads as 0, like a time-out, but it does arrive, with its sender.
    EXPECT_EQ(ktipc_send_addr(ipc.get(), buf, 0, to, sizeof ipc->addr), 0);
    socklen_t from_len = sizeof from;
    EXPECT_EQ(ktipc_receive(ipc.get(), buf, sizeof buf, 0, as_addr(&from), &from_len), 0);
    EXPECT_STREQ(from.sun_path, path);
}

} // namespace
