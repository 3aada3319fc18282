// Tests of the ROM store: archiving and unpacking with tar, the driver requests and their numbers.
#include "config/ktcfg_rom.h"
#include "tests/helpers/fuse_rom.h"
#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using kt_test::read_file;
using kt_test::scratch_dir;
using kt_test::write_file;

// The request numbers of the ROM device's driver in the MIPS encoding, as the appliance has
// them: direction in the top three bits (none 1, read 2, write 4), then size, type, number.
struct Request {
    int number;
    unsigned long value; // as built in this build
    uint32_t mips;
};
const Request requests[] = {
    {0, KT_CFG_ROM_IOC_0, 0x20006700},   {1, KT_CFG_ROM_IOC_1, 0x20006701},
    {2, KT_CFG_ROM_IOC_2, 0x80046702},   {3, KT_CFG_ROM_IOC_3, 0x40046703},
    {4, KT_CFG_ROM_IOC_4, 0x80046704},   {5, KT_CFG_ROM_IOC_5, 0x40046705},
    {6, KT_CFG_ROM_IOC_6, 0x80046706},   {7, KT_CFG_ROM_IOC_7, 0x40046707},
    {8, KT_CFG_ROM_IOC_8, 0x80046708},   {9, KT_CFG_ROM_IOC_9, 0x40046709},
    {16, KT_CFG_ROM_IOC_16, 0x80046710}, {17, KT_CFG_ROM_IOC_17, 0x40046711},
    {10, KT_CFG_ROM_IOC_10, 0x4004670a}, {12, KT_CFG_ROM_IOC_12, 0x8004670c},
    {13, KT_CFG_ROM_IOC_13, 0x4004670d}, {14, KT_CFG_ROM_IOC_14, 0x8004670e},
    {15, KT_CFG_ROM_IOC_15, 0x4004670f}, {18, KT_CFG_ROM_IOC_18, 0x80046712},
    {19, KT_CFG_ROM_IOC_19, 0x40046713},
};

// What the system's macros must make of a request of the table in this build: the MIPS value
// itself, or the same request in the generic Linux encoding (x86, ARM), which has two
// direction bits at the top (write 1, read 2) and fourteen size bits.
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
#if !defined(__mips__) && !defined(__x86_64__) && !defined(__i386__) && !defined(__aarch64__) &&   \
    !defined(__arm__)
    GTEST_SKIP() << "no expected encoding for this architecture";
#endif
    for (const Request &r : requests) {
        SCOPED_TRACE(r.number);
        EXPECT_EQ(r.mips & 0xff, static_cast<uint32_t>(r.number));
        EXPECT_EQ(r.value, expected_encoding(r.mips));
    }
}

// Sorted entries of an archive, as `tar -tf` lists them.
std::vector<std::string> archive_entries(const std::string &archive) {
    std::vector<std::string> entries;
    std::string command = "tar -tf '" + archive + "' 2>/dev/null";
    if (std::FILE *p = popen(command.c_str(), "r")) {
        char line[4096];
        while (std::fgets(line, sizeof line, p) != nullptr)
            entries.emplace_back(line, strcspn(line, "\n"));
        pclose(p);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

// A configuration directory: two files, a subdirectory and a hidden file.
void fill_config_dir(const std::string &dir) {
    ASSERT_TRUE(write_file(dir + "/system.conf", "DRIVE_LETTERA=S1\nDRIVE_LETTERB=\n"));
    ASSERT_EQ(mkdir((dir + "/sub").c_str(), 0755), 0);
    ASSERT_TRUE(write_file(dir + "/sub/inner.conf", "X=1\n"));
    ASSERT_TRUE(write_file(dir + "/.hidden", "not archived\n"));
}

const std::vector<std::string> visible_entries = {"sub/", "sub/inner.conf", "system.conf"};

struct RomStore : ::testing::Test {
    scratch_dir dir;
    std::string src = dir / "sysconfig";
    std::string rom = dir / "rom.img";
    void SetUp() override {
        ASSERT_FALSE(dir.path().empty());
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

// "/bin/tar cf ROM *" must fit in 63 characters: a ROM path of 49 does, one of 50 loses the
// "*" and a longer one is cut inside the path; tar then refuses to make an empty archive.
TEST_F(RomStore, LongRomPathIsCutAndFails) {
    ASSERT_LT(dir.path().size(), 40u) << "scratch directory too deep for this test";
    auto rom_of_length = [&](size_t length) {
        return dir.path() + "/" + std::string(length - dir.path().size() - 1, 'r');
    };
    const std::string fits = rom_of_length(49), too_long = rom_of_length(50),
                      far_too_long = rom_of_length(120);
    EXPECT_EQ(kt_cfg_rom_store(fits.c_str(), src.c_str()), 0);
    EXPECT_EQ(archive_entries(fits), visible_entries);
    EXPECT_EQ(kt_cfg_rom_store(too_long.c_str(), src.c_str()), -1);
    EXPECT_EQ(kt_cfg_rom_store(far_too_long.c_str(), src.c_str()), -1);
    EXPECT_NE(access(too_long.c_str(), F_OK), 0);
    EXPECT_NE(access(far_too_long.c_str(), F_OK), 0);
}

TEST_F(RomStore, DirectoryThatCannotBeEnteredFails) {
    EXPECT_EQ(kt_cfg_rom_store(rom.c_str(), (dir / "missing").c_str()), -1);
    EXPECT_EQ(kt_cfg_rom_store(rom.c_str(), (src + "/system.conf").c_str()), -1);
    EXPECT_EQ(kt_cfg_rom_load(rom.c_str(), (dir / "missing").c_str()), -1);

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
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "99: could not become nobody";
}

TEST_F(RomStore, ArchiverFailuresAndNullArguments) {
    EXPECT_EQ(kt_cfg_rom_store((dir / "no/such/dir/rom").c_str(), src.c_str()), -1);
    ASSERT_TRUE(write_file(rom, "not an archive\n"));
    EXPECT_EQ(kt_cfg_rom_load(rom.c_str(), src.c_str()), -1);
    EXPECT_EQ(kt_cfg_rom_load((dir / "missing.img").c_str(), src.c_str()), -1);

    EXPECT_EQ(kt_cfg_rom_store(nullptr, src.c_str()), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_store(rom.c_str(), nullptr), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_load(nullptr, src.c_str()), -EINVAL);
    EXPECT_EQ(kt_cfg_rom_load(rom.c_str(), nullptr), -EINVAL);
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child was started";
    EXPECT_EQ(errno, ECHILD);
}

// Without the driver: a regular file refuses the request, a missing node cannot be opened,
// and the argument checks come before the node is opened.
TEST(RomRequests, WithoutTheDevice) {
    scratch_dir dir;
    const std::string file = dir / "plain", missing = dir / "missing";
    ASSERT_TRUE(write_file(file, "x"));
    EXPECT_EQ(kt_cfg_flushcache(file.c_str()), -1);
    EXPECT_EQ(kt_cfg_flushcache(missing.c_str()), -ENOENT);
    EXPECT_EQ(kt_cfg_flushcache(dir.path().c_str()), -EISDIR);
    EXPECT_EQ(kt_cfg_flushcache(nullptr), -EINVAL);

    char buf[33] = {};
    int value = 0;
    const char *m = missing.c_str();
    struct Case {
        const char *what;
        std::function<int()> call;
        int result;
    };
    const Case cases[] = {
        {"4, 16 bytes", [&] { return kt_cfg_rom_ioctl_4(m, buf, 16); }, -ENOENT},
        {"4, 17 bytes", [&] { return kt_cfg_rom_ioctl_4(m, buf, 17); }, -EINVAL},
        {"6, 17 bytes", [&] { return kt_cfg_rom_ioctl_6(m, buf, 17); }, -EINVAL},
        {"8, 17 bytes", [&] { return kt_cfg_rom_ioctl_8(m, buf, 17); }, -EINVAL},
        {"16, 32 bytes", [&] { return kt_cfg_rom_ioctl_16(m, buf, 32); }, -ENOENT},
        {"16, 33 bytes", [&] { return kt_cfg_rom_ioctl_16(m, buf, 33); }, -EINVAL},
        {"5, 16 bytes", [&] { return kt_cfg_rom_ioctl_5(m, buf, 16); }, -ENOENT},
        {"5, 15 bytes", [&] { return kt_cfg_rom_ioctl_5(m, buf, 15); }, -EINVAL},
        {"7, 15 bytes", [&] { return kt_cfg_rom_ioctl_7(m, buf, 15); }, -EINVAL},
        {"9, 15 bytes", [&] { return kt_cfg_rom_ioctl_9(m, buf, 15); }, -EINVAL},
        {"17, 32 bytes", [&] { return kt_cfg_rom_ioctl_17(m, buf, 32); }, -ENOENT},
        {"17, 31 bytes", [&] { return kt_cfg_rom_ioctl_17(m, buf, 31); }, -EINVAL},
        {"4, null", [&] { return kt_cfg_rom_ioctl_4(m, nullptr, 1); }, -EINVAL},
        {"5, null", [&] { return kt_cfg_rom_ioctl_5(m, nullptr, 16); }, -EINVAL},
        {"2, null", [&] { return kt_cfg_rom_ioctl_2(m, nullptr); }, -EINVAL},
        {"3, null", [&] { return kt_cfg_rom_ioctl_3(m, nullptr); }, -EINVAL},
        {"1", [&] { return kt_cfg_rom_ioctl_1(m); }, -ENOENT},
        {"12", [&] { return kt_cfg_rom_ioctl_12(m, 1); }, -ENOENT},
        {"13", [&] { return kt_cfg_rom_ioctl_13(m); }, -ENOENT},
        {"19, null rom", [&] { return kt_cfg_rom_ioctl_19(nullptr); }, -EINVAL},
        {"13, plain file", [&] { return kt_cfg_rom_ioctl_13(file.c_str()); }, -1},
        {"10, plain file", [&] { return kt_cfg_rom_ioctl_10(file.c_str(), &value); }, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.call(), c.result);
    }
}

// ---- against a stand-in for the ROM device's driver ----------------------------------------

#ifdef KT_TEST_EEPROM_FUSE

std::string hex_of(const void *data, size_t size) {
    std::string hex;
    for (size_t i = 0; i < size; ++i) {
        char byte[3];
        std::snprintf(byte, sizeof byte, "%02x", static_cast<const unsigned char *>(data)[i]);
        hex += byte;
    }
    return hex;
}

// Stores /etc/sysconfig onto /dev/kteeprom and flushes: the archive reaches the device and
// the driver receives the flush request. Then every other request, through the same node.
TEST(RomDevice, StoreThenFlushReachTheDriver) {
    if (std::getenv("HOTPLUGD_SANDBOX") == nullptr)
        GTEST_SKIP() << "needs tests/sandbox/run --eeprom: it binds a file at /dev/kteeprom";
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        GTEST_SKIP() << "this kernel offers no FUSE (/dev/fuse)";
    scratch_dir dir;
    kt_test::fuse_rom rom(dir.path());
    std::string error = rom.start(KT_TEST_EEPROM_FUSE);
    ASSERT_EQ(error, "");

    fill_config_dir("/etc/sysconfig");
    ASSERT_EQ(kt_cfg_rom_store("/dev/kteeprom", "/etc/sysconfig"), 0);
    EXPECT_EQ(archive_entries(rom.image()), visible_entries);
    ASSERT_EQ(kt_cfg_flushcache("/dev/kteeprom"), 0);
    EXPECT_EQ(rom.last_request(), kt_test::rom_request_line(KT_CFG_ROM_IOC_0, "w", "-"));

    const std::string restored = dir / "restored";
    ASSERT_EQ(mkdir(restored.c_str(), 0755), 0);
    ASSERT_EQ(kt_cfg_rom_load("/dev/kteeprom", restored.c_str()), 0);
    EXPECT_EQ(read_file(restored + "/system.conf"), read_file("/etc/sysconfig/system.conf"));

    // Read requests are answered with 0x6b740000 + their number.
    const char *node = "/dev/kteeprom";
    const char field[33] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";
    int value = 0x0a0b0c0d;
    auto read_int = [](int result, const void *where) {
        int got = 0;
        std::memcpy(&got, where, sizeof got);
        return result == 0 ? got : result;
    };
    char buf[32] = {};
    int out = 0;
    struct Case {
        int number;
        unsigned long request;
        std::function<int()> call;
        const char *mode;
        std::string data;
    };
    const std::string field_head = hex_of(field, 4), value_hex = hex_of(&value, 4);
    const Case cases[] = {
        {1, KT_CFG_ROM_IOC_1, [&] { return kt_cfg_rom_ioctl_1(node); }, "w", "-"},
        {2, KT_CFG_ROM_IOC_2, [&] { return kt_cfg_rom_ioctl_2(node, &value); }, "w", value_hex},
        {3, KT_CFG_ROM_IOC_3, [&] { return read_int(kt_cfg_rom_ioctl_3(node, &out), &out); }, "r",
         "-"},
        {4, KT_CFG_ROM_IOC_4, [&] { return kt_cfg_rom_ioctl_4(node, field, 16); }, "w", field_head},
        {5, KT_CFG_ROM_IOC_5, [&] { return read_int(kt_cfg_rom_ioctl_5(node, buf, 16), buf); }, "r",
         "-"},
        {6, KT_CFG_ROM_IOC_6, [&] { return kt_cfg_rom_ioctl_6(node, field, 16); }, "w", field_head},
        {7, KT_CFG_ROM_IOC_7, [&] { return read_int(kt_cfg_rom_ioctl_7(node, buf, 16), buf); }, "r",
         "-"},
        {8, KT_CFG_ROM_IOC_8, [&] { return kt_cfg_rom_ioctl_8(node, field, 16); }, "w", field_head},
        {9, KT_CFG_ROM_IOC_9, [&] { return read_int(kt_cfg_rom_ioctl_9(node, buf, 16), buf); }, "r",
         "-"},
        {10, KT_CFG_ROM_IOC_10, [&] { return read_int(kt_cfg_rom_ioctl_10(node, &out), &out); },
         "r", "-"},
        {12, KT_CFG_ROM_IOC_12, [&] { return kt_cfg_rom_ioctl_12(node, value); }, "w", value_hex},
        {13, KT_CFG_ROM_IOC_13, [&] { return kt_cfg_rom_ioctl_13(node); }, "r", "-"},
        {14, KT_CFG_ROM_IOC_14, [&] { return kt_cfg_rom_ioctl_14(node, value); }, "w", value_hex},
        {15, KT_CFG_ROM_IOC_15, [&] { return read_int(kt_cfg_rom_ioctl_15(node, &out), &out); },
         "r", "-"},
        {16, KT_CFG_ROM_IOC_16, [&] { return kt_cfg_rom_ioctl_16(node, field, 32); }, "w",
         field_head},
        {17, KT_CFG_ROM_IOC_17, [&] { return read_int(kt_cfg_rom_ioctl_17(node, buf, 32), buf); },
         "r", "-"},
        {18, KT_CFG_ROM_IOC_18, [&] { return kt_cfg_rom_ioctl_18(node, value); }, "w", value_hex},
        {19, KT_CFG_ROM_IOC_19, [&] { return kt_cfg_rom_ioctl_19(node); }, "r", "-"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.number);
        bool fetches = std::string(c.mode) == "r";
        EXPECT_EQ(c.call(), fetches ? 0x6b740000 + c.number : 0);
        EXPECT_EQ(rom.last_request(), kt_test::rom_request_line(c.request, c.mode, c.data));
    }
}

#else

TEST(RomDevice, StoreThenFlushReachTheDriver) {
    GTEST_SKIP() << "the FUSE stand-in for the ROM driver is built natively only";
}

#endif

} // namespace
