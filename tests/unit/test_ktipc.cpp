// Tests of the IPC channels on real Unix datagram sockets, in the sandbox's private /tmp/ktipc.
#include "lib/ktipc.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

TEST(Ipc, DirectoryModesAndNameLengths) {
    if (std::getenv("HOTPLUGD_SANDBOX") == nullptr)
        GTEST_SKIP() << "needs scripts/sandbox/run: it mounts over /tmp";
    // A tmpfs of our own over /tmp (the sandbox's namespace is private) hides /tmp/ktipc.
    ASSERT_EQ(mount("hotplugd-test", "/tmp", "tmpfs", 0, "mode=1777"), 0);
    mode_t old_mask = umask(077);
    // The name's frame takes 20 of the 107 characters a path may have. A longer name is cut to
    // fit when the channel is made, but refused when sending, though a channel listens there.
    // Any user may send: the directory and the socket are open to all, whatever the umask.
    const std::string n87(87, 'n'), n88(88, 'n'), path = KTIPC_DIR "/ipc-" + n87 + ".sock";
    ktipc *a = ktipc_create_serveripc(n87.c_str(), 1), *b = ktipc_create_serveripc(n88.c_str(), 1);
    EXPECT_TRUE(a && b && std::string(b->addr.sun_path).size() == 107);
    EXPECT_EQ(ktipc_send_srv(b, "x", 1, n87.c_str()), 1);
    EXPECT_EQ(ktipc_send_srv(a, "x", 1, n88.c_str()), -1);
    struct stat st;
    EXPECT_TRUE(stat(path.c_str(), &st) == 0 && (st.st_mode & 07777) == 0777);
    EXPECT_TRUE(stat(KTIPC_DIR, &st) == 0 && (st.st_mode & 07777) == 0777);
    ktipc_close(a);
    ktipc_close(b);
    EXPECT_EQ(rmdir(KTIPC_DIR), 0) << "closing removed the socket files";
    close(open(KTIPC_DIR, O_WRONLY | O_CREAT, 0600));
    EXPECT_TRUE(ktipc_make_dir() == -1 && !ktipc_create_clientipc(7, 1)) << "no directory";
    umask(old_mask);
    ASSERT_EQ(umount("/tmp"), 0);
}

TEST(Ipc, ExchangesRefusalsAndTakenPaths) {
    if (std::getenv("HOTPLUGD_SANDBOX") == nullptr)
        GTEST_SKIP() << "needs scripts/sandbox/run: it works in /tmp/ktipc";
    ktipc *server = ktipc_create_serveripc("unit", 1), *peer = ktipc_create_clientipc(getpid(), 1);
    char buf[8];
    sockaddr_un from{};
    auto *from_addr = reinterpret_cast<sockaddr *>(&from);
    socklen_t from_len = sizeof from;
    // A datagram longer than the buffer is cut, and the rest of it is lost.
    ASSERT_EQ(ktipc_send_path(peer, "ping", 4, KTIPC_DIR "/ipc-unit.sock"), 4);
    EXPECT_TRUE(ktipc_receive(server, buf, 2, 1000, from_addr, &from_len) == 2 && buf[1] == 'i');
    EXPECT_EQ(from.sun_path, KTIPC_DIR "/ipc-" + std::to_string(getpid()) + ".sock");
    EXPECT_EQ(ktipc_send_addr(server, "pong", 4, from_addr, from_len), 4);
    EXPECT_EQ(ktipc_receive(peer, buf, 8, 1000, nullptr, nullptr), 4);
    EXPECT_EQ(ktipc_receive(server, buf, 8, 0, nullptr, nullptr), 0);
    auto start = Clock::now();
    EXPECT_EQ(ktipc_receive(server, buf, 8, 1500, nullptr, nullptr), 0);
    EXPECT_NEAR((Clock::now() - start) / std::chrono::milliseconds(1), 1925, 475) << "1.5 s";

    const std::string path = KTIPC_DIR "/ipc-unit.sock", too_long = path + std::string(84, 'l');
    ktipc *again = ktipc_create(path.c_str(), 1); // flag 1 removes the server's socket file

    // Refused at once, not waited for; a descriptor that is not open fails in select.
    ktipc closed{-1, peer->addr};
    auto rx = [&](ktipc *c, size_t n) { return ktipc_receive(c, buf, n, 0, nullptr, nullptr); };
    EXPECT_TRUE(rx(nullptr, 8) == -1 && rx(server, 0) == -1 && rx(&closed, 8) == -1 &&
                ktipc_receive(server, buf, 8, 0, from_addr, nullptr) == -1);
    EXPECT_TRUE(ktipc_send_srv(nullptr, buf, 1, "unit") == -1 &&
                ktipc_send_path(nullptr, buf, 1, "unit") == -1 &&
                ktipc_send_addr(nullptr, buf, 1, from_addr, from_len) == -1 &&
                ktipc_send_addr(server, nullptr, 0, from_addr, from_len) == -1 &&
                !ktipc_create_serveripc(nullptr, 1));
    closed.fd = peer->fd;
    ktipc_close(peer);
    ktipc_close(nullptr);

    // Any failure once a path was given unlinks it and keeps no descriptor: a live socket without
    // flag 1, a regular file (never stale), 108 characters.
    EXPECT_TRUE(again && !ktipc_create(path.c_str(), 0) && access(path.c_str(), F_OK) != 0);
    close(open(path.c_str(), O_WRONLY | O_CREAT, 0600));
    EXPECT_TRUE(!ktipc_create(path.c_str(), 1) && access(path.c_str(), F_OK) != 0);
    EXPECT_TRUE(!ktipc_create(too_long.c_str(), 1) && access(too_long.c_str(), F_OK) != 0);
    EXPECT_TRUE(fcntl(closed.fd, F_GETFD) == -1 && rx(&closed, 8) == -1) << "all closed";
    ktipc_close(again);
    ktipc_close(server);
}

} // namespace
