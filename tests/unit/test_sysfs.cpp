// Tests of the sysfs readers on attribute trees in temporary directories and on a real loop device.
#include "registry/sysfs.h"

#include "loop_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using kt_test::scratch_dir;
using kt_test::write_file;

TEST(ReadFile, OneBoundedReadWithoutTheFinalNewline) {
    scratch_dir dir;
    struct Case {
        std::string bytes;
        size_t size;
        int count;
        std::string text;
    } cases[] = {
        {"AA0123\n", 256, 7, "AA0123"}, // the newline is counted, then dropped
        {"two\n\n", 256, 5, "two\n"},   // only the last one goes
        {"abcdef\n", 4, 3, "abc"},      // size - 1 bytes at most
        {"abc\ndef", 5, 4, "abc"},      // the cut may end at a newline
        {"", 256, 0, ""},               // nothing before the buffer is touched
    };
    for (const Case &c : cases) {
        ASSERT_TRUE(write_file(dir / "attr", c.bytes));
        char area[257];
        std::memset(area, '\n', sizeof area); // a final newline before the buffer must stay
        char *buffer = area + 1;
        EXPECT_EQ(ktread_filef(buffer, c.size, "%s/%s", dir.path().c_str(), "attr"), c.count)
            << c.text;
        EXPECT_EQ(std::string(buffer), c.text);
        EXPECT_EQ(buffer[c.count], '\0');
        EXPECT_EQ(area[0], '\n');
    }

    // The path buffer starts at 128 bytes: a path of 128 characters makes it grow.
    ASSERT_LT(dir.path().size(), 100u);
    const std::string file = dir.path() + "/" + std::string(127 - dir.path().size(), 'f');
    ASSERT_EQ(file.size(), 128u);
    ASSERT_TRUE(write_file(file, "long\n"));
    char buffer[16];
    EXPECT_EQ(ktread_filef(buffer, sizeof buffer, "%s", file.c_str()), 5);
    EXPECT_STREQ(buffer, "long");
}

// Request paths come from any local user: a FIFO planted as an attribute reads as empty at once
// instead of stopping the reader. The read runs in a child so that a hang fails the test.
TEST(ReadFile, PlantedFifoDoesNotBlock) {
    scratch_dir dir;
    const std::string fifo = dir.path() + "/serial";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(5);
        char buffer[16] = "x";
        _exit(ktread_filef(buffer, sizeof buffer, "%s", fifo.c_str()) == 0 && buffer[0] == 0 ? 0
                                                                                             : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

// A typical stick's USB attributes, and the SCSI ones of its disk (padded as the kernel has them).
const std::pair<const char *, const char *> stick[] = {
    {"serial", "AA0123456789\n"}, {"manufacturer", "SanDisk\n"},   {"product", "Cruzer Blade\n"},
    {"idVendor", "0781\n"},       {"idProduct", "5567\n"},         {"speed", "480\n"},
    {"vendor", "SanDisk \n"},     {"model", "Cruzer Blade    \n"},
};

// What readers found before: each field differs from the stick's.
sddb_disk_info old_info() {
    sddb_disk_info info;
    std::memset(&info, 0, sizeof info);
    for (char *text : {info.serial, info.manufacturer, info.product, info.vendor, info.model})
        std::snprintf(text, 256, "old");
    info.id_vendor = info.id_product = 0xbeef;
    info.speed = 12;
    return info;
}

// An attribute's field as text: ids in hexadecimal, the speed in decimal.
std::string field(const sddb_disk_info &info, std::string_view name) {
    char id[8];
    if (name == "idVendor" || name == "idProduct") {
        std::snprintf(id, sizeof id, "%04x", name == "idVendor" ? info.id_vendor : info.id_product);
        return id;
    }
    return name == "serial"         ? info.serial
           : name == "manufacturer" ? info.manufacturer
           : name == "product"      ? info.product
           : name == "vendor"       ? info.vendor
           : name == "model"        ? info.model
                                    : std::to_string(info.speed);
}

// The stick's tree (read by both readers) with one attribute changed or missing: that field as the
// case says, every other one as the stick has it. The speed is decimal and becomes 0 when it does
// not convert; an id is hexadecimal and keeps its old value then; an empty file changes neither.
TEST(UsbAndScsiTree, AttributeValuesAndMissingAttributes) {
    scratch_dir dir;
    const std::string usb = dir / "1-1"; // sysfs hands out a link to the device directory
    ASSERT_EQ(mkdir((dir / "devices").c_str(), 0755), 0);
    ASSERT_EQ(symlink("devices", usb.c_str()), 0);
    const std::string junk("\x01\x7f\xff\xfe\"$(x)\x1b", 10);
    struct Case {
        const char *file;
        std::optional<std::string> bytes; // none: the file is missing
        std::string text;
    };
    std::vector<Case> cases = {
        {"serial", "AA0123456789", "AA0123456789"},
        {"serial", std::string(300, 'S'), std::string(255, 'S')},
        {"serial", junk + std::string("\0tail", 5), junk}, // byte for byte up to a NUL
        {"speed", "1.5\n", "1"},
        {"speed", "abc\n", "0"},
        {"speed", "\xff\xfe\x01", "0"},
        {"speed", "", "12"},
        {"speed", "99999999999\n", "2147483647"},
        {"idVendor", "zz\n", "beef"},
        {"idVendor", "\x01\xff", "beef"},
        {"idVendor", "", "beef"},
    };
    for (auto [name, bytes] : stick) // each one missing in turn keeps its field
        cases.push_back({name, {}, field(old_info(), name)});
    for (const Case &c : cases) {
        for (auto [name, bytes] : stick)
            ASSERT_TRUE(write_file(usb + "/" + name, bytes));
        const std::string file = usb + "/" + c.file;
        ASSERT_TRUE(c.bytes ? write_file(file, *c.bytes) : unlink(file.c_str()) == 0);
        sddb_disk_info info = old_info();
        ASSERT_EQ(get_sysusbdata(usb.c_str(), &info), 0);
        ASSERT_EQ(get_sysscsidata(usb.c_str(), &info), 0);
        for (auto [name, bytes] : stick) {
            std::string want = std::strcmp(name, c.file) == 0
                                   ? c.text
                                   : std::string(bytes, std::strlen(bytes) - 1);
            EXPECT_EQ(field(info, name), want)
                << name << " with " << c.file << " \"" << c.bytes.value_or("(missing)") << "\"";
        }
    }
}

TEST(BlockTree, SizeAndRemovable) {
    struct Case {
        const char *size, *removable; // null: no file
        uint32_t was_removable, size_mib, removable_after;
    } cases[] = {
        {"3907029168\n", "1\n", 0, 1907729, 1},
        {"2047\n", "0\n", 0, 0, 0},
        {"2048\n", "0\n", 1, 1, 1}, // never cleared
        {"abc\n", "abc\n", 0, 4242, 0},
        {nullptr, nullptr, 1, 4242, 1},
    };
    for (const Case &c : cases) {
        scratch_dir dir;
        ASSERT_TRUE(c.size == nullptr || write_file(dir / "size", c.size));
        ASSERT_TRUE(c.removable == nullptr || write_file(dir / "removable", c.removable));
        sddb_disk_info disk{};
        sddb_part_info part{};
        disk.removable = c.was_removable;
        part.size_mib = 4242;
        ASSERT_EQ(get_sysblockdata(dir.path().c_str(), &disk, &part), 0);
        EXPECT_EQ(part.size_mib, c.size_mib) << "size " << (c.size ? c.size : "missing");
        EXPECT_EQ(disk.removable, c.removable_after)
            << "removable " << (c.removable ? c.removable : "missing");
    }
}

TEST(BlockDevice, ReadsARealLoopDevice) {
    KT_REQUIRE(geteuid() == 0, "needs root to attach a loop device");
    scratch_dir dir;
    ASSERT_TRUE(kt_test::run("truncate -s 12M " + kt_test::shell_quoted(dir / "disk.img")));
    kt_test::LoopDevice loop(dir / "disk.img");
    KT_REQUIRE(!loop.device().empty(), "no loop device could be attached");
    sddb_disk_info disk{};
    sddb_part_info part{};
    ASSERT_EQ(get_sysblockdata(("/sys/block/" + loop.name()).c_str(), &disk, &part), 0);
    EXPECT_EQ(part.size_mib, 12u);
    EXPECT_EQ(disk.removable, 0u) << "a loop device is not removable";
}

TEST(SysfsReaders, NullArgumentsAndPathsThatAreNoDirectoryReadNothing) {
    scratch_dir dir;
    const std::string file = dir / "file", missing = dir / "missing";
    ASSERT_TRUE(write_file(file, "x"));
    const char *d = dir.path().c_str(), *f = file.c_str(), *m = missing.c_str();
    sddb_disk_info disk;
    std::memset(&disk, 0x5c, sizeof disk);
    const sddb_disk_info before = disk;
    sddb_part_info part{};
    char buffer[8] = "kept";
    EXPECT_EQ(get_sysusbdata(f, &disk), -1);
    EXPECT_EQ(get_sysusbdata(nullptr, &disk), -1);
    EXPECT_EQ(get_sysusbdata(d, nullptr), -1);
    EXPECT_EQ(get_sysscsidata(f, &disk), -1);
    EXPECT_EQ(get_sysblockdata(f, &disk, &part), -1);
    EXPECT_EQ(get_sysblockdata(d, nullptr, &part), -1);
    EXPECT_EQ(get_sysblockdata(d, &disk, nullptr), -1);
    EXPECT_EQ(ktread_filef(buffer, sizeof buffer, "%s", m), -1);
    EXPECT_EQ(ktread_filef(buffer, sizeof buffer, "%s", d), -1) << "a directory cannot be read";
    EXPECT_EQ(ktread_filef(buffer, 0, "%s", f), -1);
    EXPECT_EQ(ktread_filef(nullptr, sizeof buffer, "%s", f), -1);
    EXPECT_EQ(ktread_filef(buffer, sizeof buffer, nullptr), -1);
    EXPECT_EQ(std::memcmp(&disk, &before, sizeof disk), 0);
    EXPECT_EQ(part.size_mib, 0u);
    EXPECT_STREQ(buffer, "kept");
}

} // namespace
