// Test helpers: temporary directories, host commands, and loop devices and mounts that always go.
#ifndef TESTS_UNIT_LOOP_DEVICE_H
#define TESTS_UNIT_LOOP_DEVICE_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>

namespace testutil {

inline bool on_ci() {
    const char *ci = std::getenv("CI");
    return ci != nullptr && std::strcmp(ci, "true") == 0;
}

// Runs a shell command of the host (natively, also from a test under qemu-user); true when it
// exits 0. Its standard output goes to `output` when given.
inline bool run(const std::string &command, std::string *output = nullptr) {
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return false;
    std::string text;
    char chunk[256];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        text.append(chunk, n);
    int status = pclose(pipe);
    if (output != nullptr)
        *output = text;
    return status == 0;
}

inline std::string shell_quoted(const std::string &text) {
    return "'" + text + "'";
}

// A fresh directory below $TMPDIR (or /tmp), removed with all it holds.
class TempDir {
  public:
    TempDir() {
        const char *base = std::getenv("TMPDIR");
        std::string pattern =
            std::string(base != nullptr ? base : "/tmp") + "/hotplugd-test.XXXXXX";
        if (mkdtemp(&pattern[0]) != nullptr)
            path_ = pattern;
    }
    ~TempDir() {
        if (!path_.empty())
            run("rm -rf " + shell_quoted(path_));
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

    // Writes `bytes` to the file `name`, making the directories on the way.
    bool write(const std::string &name, const std::string &bytes) const {
        std::string file = *this / name;
        if (!run("mkdir -p " + shell_quoted(file.substr(0, file.rfind('/')))))
            return false;
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << bytes;
        return static_cast<bool>(out);
    }

  private:
    std::string path_;
};

// `image` attached to a free loop device, detached again at the end; device() is empty when
// attaching failed.
class LoopDevice {
  public:
    explicit LoopDevice(const std::string &image) {
        std::string out;
        if (run("losetup --find --show " + shell_quoted(image) + " 2>/dev/null", &out) &&
            out.rfind("/dev/loop", 0) == 0)
            device_ = out.substr(0, out.find('\n'));
    }
    ~LoopDevice() {
        if (!device_.empty())
            run("losetup -d " + device_);
    }
    LoopDevice(const LoopDevice &) = delete;
    LoopDevice &operator=(const LoopDevice &) = delete;

    const std::string &device() const { return device_; }
    // "loop3": its name under /sys/block.
    std::string name() const { return device_.substr(device_.rfind('/') + 1); }

  private:
    std::string device_;
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

} // namespace testutil

// For what root, loop devices and mounting need: skips here, fails on CI where they must work.
#define KT_REQUIRE(condition, reason)                                                              \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            if (testutil::on_ci()) {                                                               \
                FAIL() << (reason) << " (required on CI)";                                         \
            }                                                                                      \
            GTEST_SKIP() << (reason);                                                              \
        }                                                                                          \
    } while (0)

#endif
