// Tests of the ROM store: archiving and unpacking with tar, the driver requests and their numbers.
#include "config/ktcfg_rom.h"
#include "tests/helpers/fuse_rom.h"
#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using kt_test::read_file;
using kt_test::scratch_dir;
using kt_test::write_file;

// What the wrappers hand over: bytes of 0x5a ("Z"), which read the same in either byte order;
// what they fetch lands in `got`.
constexpr int int_arg = 0x5a5a5a5a;
constexpr char field[] = "ZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZ";
char got[32];

using Node = const char *;

// What a fetching request got: the int it left, or the request's failure.
int reply(int result) {
    int value = 0;
    std::memcpy(&value, got, sizeof value);
    return result == 0 ? value : result;
}

// The ROM driver's requests: the MIPS value the appliance's driver knows (direction in the top
// three bits: none 1, read 2, write 4), the value built here, and a call of its wrapper with the
// arguments at their bounds.
const struct Request {
    uint32_t mips;
    unsigned long value;
    int (*call)(Node rom);
} requests[] = {
    {0x20006700, KT_CFG_ROM_IOC_0, [](Node n) { return kt_cfg_flushcache(n); }},
    {0x20006701, KT_CFG_ROM_IOC_1, [](Node n) { return kt_cfg_rom_ioctl_1(n); }},
    {0x80046702, KT_CFG_ROM_IOC_2, [](Node n) { return kt_cfg_rom_ioctl_2(n, &int_arg); }},
    {0x40046703, KT_CFG_ROM_IOC_3, [](Node n) { return reply(kt_cfg_rom_ioctl_3(n, got)); }},
    {0x80046704, KT_CFG_ROM_IOC_4, [](Node n) { return kt_cfg_rom_ioctl_4(n, field, 16); }},
    {0x40046705, KT_CFG_ROM_IOC_5, [](Node n) { return reply(kt_cfg_rom_ioctl_5(n, got, 16)); }},
    {0x80046706, KT_CFG_ROM_IOC_6, [](Node n) { return kt_cfg_rom_ioctl_6(n, field, 16); }},
    {0x40046707, KT_CFG_ROM_IOC_7, [](Node n) { return reply(kt_cfg_rom_ioctl_7(n, got, 16)); }},
    {0x80046708, KT_CFG_ROM_IOC_8, [](Node n) { return kt_cfg_rom_ioctl_8(n, field, 16); }},
    {0x40046709, KT_CFG_ROM_IOC_9, [](Node n) { return reply(kt_cfg_rom_ioctl_9(n, got, 16)); }},
    {0x4004670a, KT_CFG_ROM_IOC_10, [](Node n) { return reply(kt_cfg_rom_ioctl_10(n, got)); }},
    {0x8004670c, KT_CFG_ROM_IOC_12, [](Node n) { return kt_cfg_rom_ioctl_12(n, int_arg); }},
    {0x4004670d, KT_CFG_ROM_IOC_13, [](Node n) { return kt_cfg_rom_ioctl_13(n); }},
    {0x8004670e, KT_CFG_ROM_IOC_14, [](Node n) { return kt_cfg_rom_ioctl_14(n, int_arg); }},
    {0x4004670f, KT_CFG_ROM_IOC_15, [](Node n) { return reply(kt_cfg_rom_ioctl_15(n, got)); }},
    {0x80046710, KT_CFG_ROM_IOC_16, [](Node n) { return kt_cfg_rom_ioctl_16(n, field, 32); }},
    {0x40046711, KT_CFG_ROM_IOC_17, [](Node n) { return reply(kt_cfg_rom_ioctl_17(n, got, 32)); }},
    {0x80046712, KT_CFG_ROM_IOC_18, [](Node n) { return kt_cfg_rom_ioctl_18(n, int_arg); }},
    {0x40046713, KT_CFG_ROM_IOC_19, [](Node n) { return kt_cfg_rom_ioctl_19(n); }},
};

// What the system's macros must make of a request in this build: the MIPS value itself, or the
// same request in the generic Linux encoding (x86, ARM; the builds this project has), which has
// two direction bits at the top (write 1, read 2) and fourteen size bits.
uint32_t expected_encoding(uint32_t mips) {
#if defined(__mips__)
    return mips;
#else
    uint32_t dir = mips >> 29, size = (mips >> 16) & 0x1fff;
    uint32_t generic_dir = ((dir & 4) != 0 ? 1u : 0u) | ((dir & 2) != 0 ? 2u : 0u);
    return (generic_dir << 30) | (size << 16) | (mips & 0xffff);
#endif
}

TEST(Requests, NumbersMatchTheDriver) {
    for (const Request &r : requests)
        EXPECT_EQ(r.value, expected_encoding(r.mips)) << std::hex << r.mips;
}

// The entries of an archive as `tar -tf` lists them, sorted.
std::string archive_entries(const std::string &archive) {
    std::string entries;
    kt_test::run("tar -tf " + kt_test::shell_quoted(archive) + " | LC_ALL=C sort", &entries);
    return entries;
}

// A configuration directory: two files, a subdirectory and a hidden file, which is not archived.
void fill_config_dir(const std::string &dir) {
    ASSERT_TRUE(write_file(dir + "/system.conf", "DRIVE_LETTERA=S1\nDRIVE_LETTERB=\n"));
    ASSERT_EQ(mkdir((dir + "/sub").c_str(), 0755), 0);
    ASSERT_TRUE(write_file(dir + "/sub/inner.conf", "X=1\n"));
    ASSERT_TRUE(write_file(dir + "/.hidden", "not archived\n"));
}

const std::string visible_entries = "sub/\nsub/inner.conf\nsystem.conf\n";

struct RomStore : ::testing::Test {
    scratch_dir dir;
    std::string src = dir / "sysconfig";
    std::string rom = dir / "rom.img";
    void SetUp() override {
        ASSERT_EQ(mkdir(src.c_str(), 0755), 0);
        fill_config_dir(src);
    }
};

TEST_F(RomStore, ArchivesVisibleEntriesAndLoadsThemBack) {
    ASSERT_TRUE(write_file(rom, std::string(100000, 'j'))); // a store starts at the first byte
    ASSERT_EQ(kt_cfg_rom_store(rom.c_str(), src.c_str()), 0);
    EXPECT_EQ(archive_entries(rom), visible_entries);

    const std::string restored = dir / "restored";
    ASSERT_EQ(mkdir(restored.c_str(), 0755), 0);
    ASSERT_EQ(kt_cfg_rom_load(rom.c_str(), restored.c_str()), 0);
    EXPECT_EQ(read_file(restored + "/system.conf"), read_file(src + "/system.conf"));
    EXPECT_EQ(read_file(restored + "/sub/inner.conf"), "X=1\n");
    EXPECT_NE(access((restored + "/.hidden").c_str(), F_OK), 0);
}

// "/bin/tar cf ROM *" is cut at 63 characters: a ROM path of 49 still fits, one of 50 loses
// the "*", and tar refuses to make an empty archive.
TEST_F(RomStore, LongRomPathIsCutAndFails) {
    ASSERT_LT(dir.path().size(), 40u) << "scratch directory too deep for this test";
    const std::string fits = dir.path() + "/" + std::string(48 - dir.path().size(), 'r');
    const std::string too_long = dir.path() + "/" + std::string(49 - dir.path().size(), 'r');
    ASSERT_EQ(fits.size(), 49u);
    EXPECT_EQ(kt_cfg_rom_store(fits.c_str(), src.c_str()), 0);
    EXPECT_EQ(kt_cfg_rom_store(too_long.c_str(), src.c_str()), -1);
    EXPECT_NE(access(too_long.c_str(), F_OK), 0);
}

TEST_F(RomStore, UnreadableDirectoryAndBadArchiveFail) {
    EXPECT_EQ(kt_cfg_rom_store(rom.c_str(), (dir / "missing").c_str()), -1);
    ASSERT_TRUE(write_file(rom, "not an archive\n"));
    EXPECT_EQ(kt_cfg_rom_load(rom.c_str(), src.c_str()), -1);

    // Root enters any directory: a child that is nobody meets a closed one.
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to switch to another user";
    ASSERT_EQ(chmod(src.c_str(), 0700), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(99);
        _exit(kt_cfg_rom_store(rom.c_str(), src.c_str()) == -1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "exit status 99: could not become nobody";
}

// Without the driver: a node that is not the ROM refuses a request, a missing one cannot be
// opened, and the argument checks come before the node is opened (so a missing node shows
// nothing); the device test below calls every wrapper with its arguments at their bounds.
TEST(RomRequests, FailuresAndArgumentChecks) {
    scratch_dir dir;
    const std::string plain = dir / "plain", missing = dir / "missing";
    ASSERT_TRUE(write_file(plain, "x"));
    const char *p = plain.c_str(), *m = missing.c_str(), *d = dir.path().c_str();
    char buf[33] = {};
    EXPECT_EQ(kt_cfg_flushcache(p), -1) << "the ioctl's result";
    EXPECT_EQ(kt_cfg_flushcache(m), -ENOENT);
    EXPECT_EQ(kt_cfg_rom_ioctl_4(m, buf, 17), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_ioctl_16(m, buf, 33), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_ioctl_5(m, buf, 15), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_ioctl_17(m, buf, 31), -EINVAL);

    EXPECT_EQ(kt_cfg_flushcache(nullptr), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_ioctl_19(nullptr), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_ioctl_2(m, nullptr), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_ioctl_3(m, nullptr), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_ioctl_4(m, nullptr, 1), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_ioctl_5(m, nullptr, 16), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_store(nullptr, d), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_store(p, nullptr), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_load(nullptr, d), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_load(p, nullptr), -EINVAL);
}

// ---- against a stand-in for the ROM device's driver ----------------------------------------

#ifdef KT_TEST_EEPROM_FUSE

// The line the helper records for a request: sends hand over an int's worth of bytes.
std::string request_line(const Request &r) {
    const uint32_t direction = r.mips >> 29;
    return kt_test::rom_request_line(r.value, direction == 2 ? "r" : "w",
                                     direction == 4 ? "5a5a5a5a" : "-") +
           "\n";
}

// Stores /etc/sysconfig onto /dev/kteeprom and flushes: the archive reaches the device and
// the driver receives the flush request. Then every request through its wrapper and the node.
TEST(RomDevice, StoreThenFlushReachTheDriver) {
    if (!kt_test::in_sandbox())
        GTEST_SKIP() << "needs tests/sandbox/run --eeprom: it binds a file at /dev/kteeprom";
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        GTEST_SKIP() << "this kernel offers no FUSE (/dev/fuse)";
    scratch_dir dir;
    kt_test::fuse_rom rom(dir.path());
    ASSERT_EQ(rom.start(KT_TEST_EEPROM_FUSE), "");

    fill_config_dir("/etc/sysconfig");
    ASSERT_EQ(kt_cfg_rom_store("/dev/kteeprom", "/etc/sysconfig"), 0);
    EXPECT_EQ(archive_entries(rom.image()), visible_entries);
    ASSERT_EQ(kt_cfg_flushcache("/dev/kteeprom"), 0);
    std::string log = request_line(requests[0]);
    EXPECT_EQ(rom.requests(), log);

    // Fetching requests are answered with 0x6b740000 + their number.
    for (const Request &r : requests) {
        const int number = static_cast<int>(r.mips & 0xff);
        EXPECT_EQ(r.call("/dev/kteeprom"), r.mips >> 29 == 2 ? 0x6b740000 + number : 0) << number;
        log += request_line(r);
    }
    EXPECT_EQ(rom.requests(), log);
}

#endif

} // namespace
