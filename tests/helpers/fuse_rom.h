// Test helper: the FUSE stand-in for the ROM device's driver (kteeprom_fuse) at /dev/kteeprom.
#ifndef HOTPLUGD_TESTS_FUSE_ROM_H
#define HOTPLUGD_TESTS_FUSE_ROM_H

#include "tests/helpers/scratch.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kt_test {

// The FUSE stand-in for the driver, served from `dir`/mnt and bound at /dev/kteeprom; it
// records what reaches it in `dir`/rec. Everything is undone when it goes.
class fuse_rom {
  public:
    explicit fuse_rom(const std::string &dir) : mnt_(dir + "/mnt"), rec_(dir + "/rec") {}
    ~fuse_rom() {
        if (bound_)
            umount("/dev/kteeprom");
        umount2(mnt_.c_str(), MNT_DETACH); // fails harmlessly when nothing is mounted there
        if (helper_ >= 0) {
            shutdown(helper_, SHUT_WR); // the helper exits when its input ends
            read_line();                // and its end closes as it exits
            close(helper_);
        }
    }
    fuse_rom(const fuse_rom &) = delete;
    fuse_rom &operator=(const fuse_rom &) = delete;

    // Starts the helper (a grandchild: the ROM store waits for any child) and binds its file at
    // /dev/kteeprom. Empty on success, else what went wrong.
    std::string start(const char *helper) {
        int ends[2];
        if (mkdir(mnt_.c_str(), 0755) != 0 || mkdir(rec_.c_str(), 0755) != 0 ||
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            return "mkdir or socketpair failed";
        pid_t child = fork();
        if (child == 0) {
            if (fork() == 0 && dup2(ends[1], STDIN_FILENO) == 0 &&
                dup2(ends[1], STDOUT_FILENO) == 1)
                execl(helper, helper, rec_.c_str(), mnt_.c_str(), static_cast<char *>(nullptr));
            _exit(0);
        }
        close(ends[1]);
        helper_ = ends[0];
        if (child < 0 || waitpid(child, nullptr, 0) != child || read_line() != "ready")
            return "the helper did not start";
        if (mount((mnt_ + "/kteeprom").c_str(), "/dev/kteeprom", nullptr, MS_BIND, nullptr) != 0)
            return std::string("bind mount: ") + std::strerror(errno);
        bound_ = true;
        return "";
    }

    std::string image() const { return rec_ + "/image"; }

    // Every request the driver received, a line each, as the helper recorded them.
    std::string requests() const { return read_file(rec_ + "/requests"); }

    // The last of them, without its line feed.
    std::string last_request() const {
        std::string all = requests();
        if (!all.empty() && all.back() == '\n')
            all.pop_back();
        return all.substr(all.rfind('\n') + 1); // npos + 1 is 0: a single line
    }

  private:
    std::string read_line() {
        std::string line;
        pollfd p{helper_, POLLIN, 0};
        char c;
        while (poll(&p, 1, 10000) == 1 && read(helper_, &c, 1) == 1 && c != '\n')
            line += c;
        return line;
    }

    std::string mnt_, rec_;
    int helper_ = -1;
    bool bound_ = false;
};

// A line of the helper's request record: the request number, "r" or "w", the data in hex or "-".
inline std::string rom_request_line(unsigned long request, const char *mode,
                                    const std::string &data) {
    char head[32];
    std::snprintf(head, sizeof head, "%08lx %s ", request, mode);
    return head + data;
}

} // namespace kt_test

#endif
