// Tests of the IPC channels on real Unix datagram sockets, in the sandbox's private /tmp/ktipc.
#include "lib/ktipc.h"
#include "tests/helpers/scratch.h"

using namespace std::chrono_literals;

TEST(Ipc, ExchangesRefusalsTakenPathsAndNames) {
    KT_NEEDS_SANDBOX("it works in /tmp/ktipc and mounts over /tmp");
    ktipc *server = ktipc_create_serveripc("unit", 1 | KTIPC_PASS_CREDENTIALS),
          *peer = ktipc_create_clientipc(getpid(), 1);
    char buf[8];
    sockaddr_un from{};
    auto *from_addr = reinterpret_cast<sockaddr *>(&from);
    socklen_t from_len = sizeof from;
    // A datagram longer than the buffer is cut, and the rest of it is lost.
    ASSERT_EQ(ktipc_send_path(peer, "ping", 4, KTIPC_DIR "/ipc-unit.sock"), 4);
    uid_t uid = 7; // the sender as the kernel vouches for it
    gid_t gid = 7;
    EXPECT_TRUE(ktipc_receive_cred(server, buf, 2, 1000, from_addr, &from_len, &uid, &gid) == 2 &&
                buf[1] == 'i' && uid == getuid() && gid == getgid());
    EXPECT_EQ(from.sun_path, KTIPC_DIR "/ipc-" + std::to_string(getpid()) + ".sock");
    EXPECT_EQ(ktipc_send_addr(server, "pong", 4, from_addr, from_len), 4);
    EXPECT_EQ(ktipc_receive(peer, buf, 8, 1000, nullptr, nullptr), 4);
    auto rx = [&](ktipc *c, size_t n, int ms = 0) {
        return ktipc_receive(c, buf, n, ms, nullptr, nullptr);
    };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(rx(server, 8) == 0 && rx(server, 8, 1500) == 0);
    EXPECT_NEAR((std::chrono::steady_clock::now() - start) / 1ms, 1925, 475) << "1.5 s";

    const std::string path = KTIPC_DIR "/ipc-unit.sock", too_long = path + std::string(84, 'l');
    ktipc *again = ktipc_create(path.c_str(), 1); // flag 1 removes the server's socket file
    // Refused at once, not waited for; a descriptor that is not open fails in select.
    ktipc closed{-1, peer->addr};
    EXPECT_TRUE(rx(nullptr, 8) == -1 && rx(server, 0) == -1 && rx(&closed, 8) == -1 &&
                ktipc_receive(server, buf, 8, 0, from_addr, nullptr) == -1 &&
                ktipc_send_srv(nullptr, buf, 1, "unit") == -1 &&
                ktipc_send_path(nullptr, buf, 1, "unit") == -1 &&
                ktipc_send_addr(server, nullptr, 0, from_addr, from_len) == -1 &&
                !ktipc_create_serveripc(nullptr, 1));
    ktipc_close(peer);
    ktipc_close(nullptr);
    // Any failure once a path was given unlinks it: a live socket without flag 1, a file, too long.
    EXPECT_TRUE(again && !ktipc_create(path.c_str(), 0) && access(path.c_str(), F_OK) != 0);
    close(open(path.c_str(), O_WRONLY | O_CREAT, 0600));
    EXPECT_TRUE(!ktipc_create(path.c_str(), 1) && access(path.c_str(), F_OK) != 0 &&
                !ktipc_create(too_long.c_str(), 1) && access(too_long.c_str(), F_OK) != 0);
    ktipc_close(again);
    ktipc_close(server);

    // Our own tmpfs over /tmp (the namespace is private); a name's frame takes 20 of 107
    // characters.
    ASSERT_EQ(mount("hotplugd-test", "/tmp", "tmpfs", 0, "mode=1777"), 0);
    const mode_t old_mask = umask(077); // the modes are the same under any umask
    const std::string n87(87, 'n');
    ktipc *a = ktipc_create_serveripc(n87.c_str(), 1);
    EXPECT_TRUE(ktipc_send_srv(a, "x", 1, n87.c_str()) == 1 &&
                ktipc_send_srv(a, "x", 1, (n87 + "n").c_str()) == -1);
    struct stat sock, dir;
    EXPECT_TRUE(stat((KTIPC_DIR "/ipc-" + n87 + ".sock").c_str(), &sock) == 0 &&
                stat(KTIPC_DIR, &dir) == 0 && (sock.st_mode & 07777) == 0777 &&
                (dir.st_mode & 07777) == 0777);
    ktipc_close(a);
    EXPECT_EQ(rmdir(KTIPC_DIR), 0) << "closing removed the socket files";
    close(open(KTIPC_DIR, O_WRONLY | O_CREAT, 0600));
    EXPECT_TRUE(ktipc_make_dir() == -1 && !ktipc_create_clientipc(7, 1)) << "no directory";
    umask(old_mask);
    ASSERT_EQ(umount("/tmp"), 0);
}
