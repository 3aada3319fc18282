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
        if (mounted_)
            umount2(mnt_.c_str(), MNT_DETACH);
        if (to_helper_ >= 0)
            close(to_helper_); // the helper exits when its input ends
        if (from_helper_ >= 0) {
            wait_for_line(10000); // its end of the pipe closes as it exits
            close(from_helper_);
        }
    }
    fuse_rom(const fuse_rom &) = delete;
    fuse_rom &operator=(const fuse_rom &) = delete;

    // Starts the helper (not as a child: the ROM store waits for any child) and binds its
    // file at /dev/kteeprom. Empty on success, else what went wrong.
    std::string start(const char *helper) {
        if (mkdir(mnt_.c_str(), 0755) != 0 || mkdir(rec_.c_str(), 0755) != 0)
            return "mkdir failed";
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            return "pipe failed";
        pid_t child = fork();
        if (child == 0) {
            if (fork() == 0) {
                dup2(in[0], STDIN_FILENO);
                dup2(out[1], STDOUT_FILENO);
                execl(helper, helper, rec_.c_str(), mnt_.c_str(), static_cast<char *>(nullptr));
                _exit(127);
            }
            _exit(0);
        }
        close(in[0]);
        close(out[1]);
        to_helper_ = in[1];
        from_helper_ = out[0];
        if (child < 0 || waitpid(child, nullptr, 0) != child)
            return "fork failed";
        if (wait_for_line(10000) != "ready")
            return "the helper did not start";
        mounted_ = true;
        if (mount((mnt_ + "/kteeprom").c_str(), "/dev/kteeprom", nullptr, MS_BIND, nullptr) != 0)
            return std::string("bind mount: ") + std::strerror(errno);
        bound_ = true;
        return "";
    }

    std::string image() const { return rec_ + "/image"; }

    // The last request the driver received, as the helper recorded it.
    std::string last_request() const {
        std::string all = read_file(rec_ + "/requests");
        if (!all.empty() && all.back() == '\n')
            all.pop_back();
        return all.substr(all.rfind('\n') + 1); // npos + 1 is 0: a single line
    }

  private:
    std::string wait_for_line(int timeout_ms) {
        std::string line;
        pollfd p{from_helper_, POLLIN, 0};
        char c;
        while (poll(&p, 1, timeout_ms) == 1 && read(from_helper_, &c, 1) == 1 && c != '\n')
            line += c;
        return line;
    }

    std::string mnt_, rec_;
    int to_helper_ = -1, from_helper_ = -1;
    bool mounted_ = false, bound_ = false;
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
