// ktcfg_rom: archiving a configuration directory onto the ROM device and the driver's requests.
#include "config/ktcfg_rom.h"
#include "lib/kt_internal.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

enum class archive_mode { load, store };

// Runs tar in `dir` on the archive `rom` and reports whether it succeeded.
int run_archiver(const char *rom, const char *dir, archive_mode mode) {
    if (rom == nullptr || dir == nullptr)
        return -EINVAL;
    // The shell expands "*" in `dir`, so the archive holds its visible entries under relative
    // paths. The command is cut at 63 characters: a longer ROM path makes the store fail.
    // Formatted before fork, since the child of a threaded process keeps to plain system calls.
    char command[64];
    std::snprintf(command, sizeof command, "/bin/tar cf %s *", rom);
    // Hardened: the ROM path reaches tar as a word of its own, and "--" keeps an entry whose
    // name starts with "-" from being read as one of tar's options; the archive is the same.
    const char *hardened_command = "exec /bin/tar cf \"$0\" -- *";

    pid_t pid = fork();
    if (pid < 0)
        return -errno;
    if (pid == 0) {
        kt::unblock_signals();
        // tar's messages have nowhere to go; its exit status alone tells the caller.
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        if (chdir(dir) != 0)
            _exit(1);
        if (mode == archive_mode::load)
            execl("/bin/tar", "tar", "xf", rom, static_cast<char *>(nullptr));
        else
            execl("/bin/sh", "sh", "-c", kt::hardened ? hardened_command : command,
                  kt::hardened ? rom : static_cast<char *>(nullptr), static_cast<char *>(nullptr));
        _exit(1);
    }

    // wait() for any child, not waitpid() for this one: deliberate and kept as the appliance
    // has always done it. Its price: a caller with another child that ends first (a hook
    // program left running past its time limit, say) gets that child's status here while tar
    // may still be writing. Callers keep no other child running while they store. Hardened:
    // tar's own status, always.
    int status = 0;
    while ((kt::hardened ? waitpid(pid, &status, 0) : wait(&status)) < 0) {
        if (errno != EINTR)
            return -1;
    }
    if (WTERMSIG(status) != 0)
        return -1;
    return WEXITSTATUS(status) == 0 ? 0 : -1;
}

// One driver request on a freshly opened node: the node is closed again at once.
int rom_request(const char *rom, int open_flags, unsigned long request, void *arg) {
    if (rom == nullptr)
        return -EINVAL;
    int fd = open(rom, open_flags | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    int result = ioctl(fd, request, arg);
    close(fd);
    return result;
}

// Requests 0 and 1 and those handing data to the driver open the node write-only.
int send_request(const char *rom, unsigned long request, const void *arg) {
    return rom_request(rom, O_WRONLY, request, const_cast<void *>(arg));
}

// Requests fetching data from the driver open it read-only.
int fetch_request(const char *rom, unsigned long request, void *arg) {
    return rom_request(rom, O_RDONLY, request, arg);
}

int send_field(const char *rom, unsigned long request, const void *data, size_t length,
               size_t max_length) {
    if (data == nullptr || length > max_length)
        return -EINVAL;
    return send_request(rom, request, data);
}

int fetch_field(const char *rom, unsigned long request, void *buffer, size_t size,
                size_t min_size) {
    if (buffer == nullptr || size < min_size)
        return -EINVAL;
    return fetch_request(rom, request, buffer);
}

int send_pointer(const char *rom, unsigned long request, const void *arg) {
    return arg == nullptr ? -EINVAL : send_request(rom, request, arg);
}

int fetch_pointer(const char *rom, unsigned long request, void *arg) {
    return arg == nullptr ? -EINVAL : fetch_request(rom, request, arg);
}

int send_int(const char *rom, unsigned long request, int value) {
    return send_request(rom, request, &value);
}

int fetch_int(const char *rom, unsigned long request) {
    int value = 0;
    int result = fetch_request(rom, request, &value);
    return result < 0 ? result : value;
}

constexpr size_t short_field = 16;
constexpr size_t long_field = 32;

} // namespace

extern "C" {

int kt_cfg_rom_store(const char *rom, const char *dir) {
    return run_archiver(rom, dir, archive_mode::store);
}

int kt_cfg_rom_load(const char *rom, const char *dir) {
    return run_archiver(rom, dir, archive_mode::load);
}

int kt_cfg_flushcache(const char *rom) {
    return send_request(rom, KT_CFG_ROM_IOC_0, nullptr);
}

int kt_cfg_rom_ioctl_1(const char *rom) {
    return send_request(rom, KT_CFG_ROM_IOC_1, nullptr);
}

int kt_cfg_rom_ioctl_2(const char *rom, const void *arg) {
    return send_pointer(rom, KT_CFG_ROM_IOC_2, arg);
}
int kt_cfg_rom_ioctl_3(const char *rom, void *arg) {
    return fetch_pointer(rom, KT_CFG_ROM_IOC_3, arg);
}
int kt_cfg_rom_ioctl_10(const char *rom, void *arg) {
    return fetch_pointer(rom, KT_CFG_ROM_IOC_10, arg);
}
int kt_cfg_rom_ioctl_15(const char *rom, void *arg) {
    return fetch_pointer(rom, KT_CFG_ROM_IOC_15, arg);
}

int kt_cfg_rom_ioctl_4(const char *rom, const void *data, size_t length) {
    return send_field(rom, KT_CFG_ROM_IOC_4, data, length, short_field);
}
int kt_cfg_rom_ioctl_6(const char *rom, const void *data, size_t length) {
    return send_field(rom, KT_CFG_ROM_IOC_6, data, length, short_field);
}
int kt_cfg_rom_ioctl_8(const char *rom, const void *data, size_t length) {
    return send_field(rom, KT_CFG_ROM_IOC_8, data, length, short_field);
}
int kt_cfg_rom_ioctl_16(const char *rom, const void *data, size_t length) {
    return send_field(rom, KT_CFG_ROM_IOC_16, data, length, long_field);
}

int kt_cfg_rom_ioctl_5(const char *rom, void *buffer, size_t size) {
    return fetch_field(rom, KT_CFG_ROM_IOC_5, buffer, size, short_field);
}
int kt_cfg_rom_ioctl_7(const char *rom, void *buffer, size_t size) {
    return fetch_field(rom, KT_CFG_ROM_IOC_7, buffer, size, short_field);
}
int kt_cfg_rom_ioctl_9(const char *rom, void *buffer, size_t size) {
    return fetch_field(rom, KT_CFG_ROM_IOC_9, buffer, size, short_field);
}
int kt_cfg_rom_ioctl_17(const char *rom, void *buffer, size_t size) {
    return fetch_field(rom, KT_CFG_ROM_IOC_17, buffer, size, long_field);
}

int kt_cfg_rom_ioctl_12(const char *rom, int value) {
    return send_int(rom, KT_CFG_ROM_IOC_12, value);
}
int kt_cfg_rom_ioctl_14(const char *rom, int value) {
    return send_int(rom, KT_CFG_ROM_IOC_14, value);
}
int kt_cfg_rom_ioctl_18(const char *rom, int value) {
    return send_int(rom, KT_CFG_ROM_IOC_18, value);
}

int kt_cfg_rom_ioctl_13(const char *rom) {
    return fetch_int(rom, KT_CFG_ROM_IOC_13);
}
int kt_cfg_rom_ioctl_19(const char *rom) {
    return fetch_int(rom, KT_CFG_ROM_IOC_19);
}

} // extern "C"
