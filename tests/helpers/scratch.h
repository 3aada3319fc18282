// Test helpers: the headers every unit test uses, a scratch directory, files, commands, holders.
#ifndef HOTPLUGD_TESTS_SCRATCH_H
#define HOTPLUGD_TESTS_SCRATCH_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <ftw.h>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <tuple>
#include <unistd.h>
#include <vector>

// A test of the daemon's fixed paths skips outside scripts/sandbox/run (its paths are tmpfs).
#define KT_NEEDS_SANDBOX(why)                                                                      \
    if (std::getenv("HOTPLUGD_SANDBOX") == nullptr)                                                \
    GTEST_SKIP() << "needs scripts/sandbox/run: " why

namespace kt_test {

// A fresh directory under $TMPDIR (else /tmp); removed, with its content, when it goes.
class scratch_dir {
  public:
    scratch_dir() {
        const char *base = std::getenv("TMPDIR");
        std::string name = std::string(base && *base ? base : "/tmp") + "/hotplugd-test.XXXXXX";
        path_ = mkdtemp(name.data()) != nullptr ? name : "";
    }
    ~scratch_dir() { nftw(path_.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS); } // "" fails at once
    scratch_dir(const scratch_dir &) = delete;
    scratch_dir &operator=(const scratch_dir &) = delete;
    const std::string &path() const { return path_; } // empty when it could not be made
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

  private:
    static int remove(const char *p, const struct stat *, int, FTW *) { return std::remove(p), 0; }
    std::string path_;
};

// Fills a fixed field: a text as long as the field leaves it without a NUL, as the records allow.
template <size_t N> void put(char (&field)[N], const std::string &text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(text.size(), N));
}

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline bool write_file(const std::string &path, std::string_view content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(
        out.write(content.data(), static_cast<std::streamsize>(content.size())));
}

// Runs a host command (natively, also from a test under qemu-user); true when it exits 0.
inline bool run(const std::string &command) {
    return std::system(("{ " + command + "\n} >/dev/null").c_str()) == 0;
}

// What `code` writes to standard output (descriptor 1, the C stream flushed), instead of there.
template <typename Code> std::string capture_stdout(Code code) {
    scratch_dir dir;
    std::fflush(stdout);
    const int saved = dup(1), file = open((dir / "out").c_str(), O_WRONLY | O_CREAT, 0600);
    dup2(file, 1);
    close(file);
    code();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    return read_file(dir / "out");
}

// Kills a holder and reaps it, letting go of what it held; never -1 (kill(-1) ends everything).
inline void stop_holder(pid_t pid) {
    if (pid > 0 && kill(pid, SIGKILL) == 0)
        waitpid(pid, nullptr, 0);
}

// A child that takes something (a lock, a pid file) and keeps it: its pid, or -1 if `take` failed.
template <typename Take> pid_t start_holder(Take take) {
    int ready[2];
    char ok = 0;
    if (pipe(ready) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) { // reports, then holds on until killed
        (void)!write(ready[1], take() ? "1" : "0", 1);
        for (;;)
            pause();
    }
    close(ready[1]);
    if (pid > 0 && (read(ready[0], &ok, 1) != 1 || ok != '1'))
        stop_holder(std::exchange(pid, -1));
    close(ready[0]);
    return pid;
}

} // namespace kt_test

#endif
