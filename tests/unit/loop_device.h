// Test helpers: loop devices and mounts that always go, and a check for what they need.
#ifndef TESTS_UNIT_LOOP_DEVICE_H
#define TESTS_UNIT_LOOP_DEVICE_H

#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace kt_test {

inline bool on_ci() {
    const char *ci = std::getenv("CI");
    return ci != nullptr && std::strcmp(ci, "true") == 0;
}

// `image` attached to a free loop device, or to /dev/loop<number> (read-only when asked: its
// minor then names the disk the daemon sees, 17 being "sdb1"), detached again at the end; a
// numbered device that the test made is removed again. device() is empty when attaching failed.
class LoopDevice {
  public:
    explicit LoopDevice(const std::string &image) {
        std::string out;
        if (run("losetup --find --show " + shell_quoted(image) + " 2>/dev/null", &out) &&
            out.rfind("/dev/loop", 0) == 0)
            device_ = out.substr(0, out.find('\n'));
    }
    LoopDevice(const std::string &image, int number, bool read_only = false) {
        const std::string device = "/dev/loop" + std::to_string(number);
        made_ =
            access(("/sys/block/loop" + std::to_string(number)).c_str(), F_OK) != 0 ? number : -1;
        if (run("losetup " + std::string(read_only ? "-r " : "") + device + " " +
                shell_quoted(image) + " 2>/dev/null"))
            device_ = device;
    }
    ~LoopDevice() {
        if (!device_.empty())
            run("losetup -d " + device_);
        if (made_ >= 0)
            run("python3 -c 'import fcntl, os; fcntl.ioctl(os.open(\"/dev/loop-control\", "
                "os.O_RDWR), 0x4C81, " +
                std::to_string(made_) + ")' 2>/dev/null");
    }
    LoopDevice(const LoopDevice &) = delete;
    LoopDevice &operator=(const LoopDevice &) = delete;

    const std::string &device() const { return device_; }
    // "loop3": its name under /sys/block.
    std::string name() const { return device_.substr(device_.rfind('/') + 1); }

  private:
    std::string device_;
    int made_ = -1; // LOOP_CTL_REMOVE (0x4C81) takes it away again
};

// A file system mounted from `device` on `dir`, unmounted at the end; ok() says whether it was.
class Mounted {
  public:
    Mounted(const std::string &device, const std::string &dir, const std::string &type)
        : dir_(dir),
          ok_(run("mount -t " + type + " " + shell_quoted(device) + " " + shell_quoted(dir))) {}
    ~Mounted() {
        if (ok_)
            run("umount " + shell_quoted(dir_));
    }
    Mounted(const Mounted &) = delete;
    Mounted &operator=(const Mounted &) = delete;
    bool ok() const { return ok_; }

  private:
    std::string dir_;
    bool ok_;
};

} // namespace kt_test

// For what root, loop devices and mounting need: skips here, fails on CI where they must work.
#define KT_REQUIRE(condition, reason)                                                              \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            if (kt_test::on_ci()) {                                                                \
                FAIL() << (reason) << " (required on CI)";                                         \
            }                                                                                      \
            GTEST_SKIP() << (reason);                                                              \
        }                                                                                          \
    } while (0)

#endif
