// Test helpers: a scratch directory removed with everything in it, whole-file I/O, host commands.
#ifndef HOTPLUGD_TESTS_SCRATCH_H
#define HOTPLUGD_TESTS_SCRATCH_H

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <ftw.h>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace kt_test {

// A fresh directory under $TMPDIR (else /tmp); removed, with its content, when it goes.
class scratch_dir {
  public:
    scratch_dir() {
        const char *base = std::getenv("TMPDIR");
        std::string name =
            std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/hotplugd-test.XXXXXX";
        if (mkdtemp(name.data()) != nullptr)
            path_ = name;
    }
    ~scratch_dir() {
        auto remove = [](const char *path, const struct stat *, int, FTW *) {
            return std::remove(path), 0;
        };
        if (!path_.empty())
            nftw(path_.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
    }
    scratch_dir(const scratch_dir &) = delete;
    scratch_dir &operator=(const scratch_dir &) = delete;

    // Empty when the directory could not be made.
    const std::string &path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

  private:
    std::string path_;
};

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline bool write_file(const std::string &path, std::string_view content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    return static_cast<bool>(out);
}

// Runs a shell command of the host (natively, also from a test under qemu-user); true when it
// exits 0. Its standard output goes to `output` when given.
inline bool run(const std::string &command, std::string *output = nullptr) {
    std::string text;
    FILE *pipe = popen(command.c_str(), "r");
    for (char chunk[256]; size_t n = pipe ? std::fread(chunk, 1, sizeof chunk, pipe) : 0;)
        text.append(chunk, n);
    if (output != nullptr)
        *output = text;
    return pipe != nullptr && pclose(pipe) == 0;
}

// Whether the program runs inside scripts/sandbox/run, whose fixed paths and /tmp are fresh tmpfs.
inline bool in_sandbox() {
    return std::getenv("HOTPLUGD_SANDBOX") != nullptr;
}

// What `code` writes to standard output (descriptor 1, the C stream flushed), instead of there.
template <typename Code> std::string capture_stdout(Code code) {
    scratch_dir dir;
    const std::string path = dir / "stdout";
    std::fflush(stdout);
    int saved = dup(1);
    int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(file, 1);
    close(file);
    code();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    return read_file(path);
}

} // namespace kt_test

#endif
