// Tests of the sysfs readers on attribute trees in temporary directories and on a real loop device.
#include "registry/sysfs.h"

#include "loop_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>

namespace {

using testutil::TempDir;

sddb_disk_info blank_disk_info() {
    sddb_disk_info info;
    std::memset(&info, 0, sizeof info);
    return info;
}

sddb_part_info blank_part_info() {
    sddb_part_info info;
    std::memset(&info, 0, sizeof info);
    return info;
}

// ---- ktread_filef

TEST(ReadFile, NewlineAndLength) {
    TempDir dir;
    struct Case {
        std::string bytes;
        size_t size;
        int count;
        std::string text;
    } cases[] = {
        {"AA0123\n", 256, 7, "AA0123"}, // the newline is counted, then dropped
        {"AA0123", 256, 6, "AA0123"},
        {"\n", 256, 1, ""},
        {"two\n\n", 256, 5, "two\n"}, // only the last one goes
        {"abcdef\n", 4, 3, "abc"},    // size - 1 bytes at most
        {"abc\ndef", 5, 4, "abc"},    // the cut may end at a newline
        {"abc", 1, 0, ""},            // room for the terminator only
        {std::string("a\0b\n", 4), 256, 4, "a"},
    };
    for (const Case &c : cases) {
        ASSERT_TRUE(dir.write("attr", c.bytes));
        char buffer[256];
        std::memset(buffer, 'x', sizeof buffer);
        EXPECT_EQ(ktread_filef(buffer, c.size, "%s/%s", dir.path().c_str(), "attr"), c.count)
            << c.text;
        EXPECT_EQ(std::string(buffer), c.text);
        EXPECT_EQ(buffer[c.count], '\0');
    }
}

TEST(ReadFile, EmptyFileTouchesNothingBeforeTheBuffer) {
    TempDir dir;
    ASSERT_TRUE(dir.write("empty", ""));
    char area[8];
    std::memset(area, '#', sizeof area);
    EXPECT_EQ(ktread_filef(area + 1, sizeof area - 1, "%s/empty", dir.path().c_str()), 0);
    EXPECT_EQ(area[0], '#');
    EXPECT_EQ(area[1], '\0');
    EXPECT_EQ(area[2], '#');
}

TEST(ReadFile, FailuresLeaveTheBufferAlone) {
    TempDir dir;
    ASSERT_TRUE(dir.write("sub/attr", "x"));
    char buffer[16] = "untouched";
    EXPECT_EQ(ktread_filef(buffer, sizeof buffer, "%s/missing", dir.path().c_str()), -1);
    EXPECT_EQ(ktread_filef(buffer, sizeof buffer, "%s/sub", dir.path().c_str()), -1)
        << "a directory opens but cannot be read";
    EXPECT_EQ(ktread_filef(buffer, 0, "%s/sub/attr", dir.path().c_str()), -1);
    EXPECT_STREQ(buffer, "untouched");
    EXPECT_EQ(ktread_filef(nullptr, sizeof buffer, "%s/sub/attr", dir.path().c_str()), -1);
    EXPECT_EQ(ktread_filef(buffer, sizeof buffer, nullptr), -1);
}

// A file name below `dir` whose full path is `length` characters long.
std::string path_of_length(const TempDir &dir, size_t length) {
    std::string path = dir.path();
    while (length - path.size() > 201)
        path += "/" + std::string(200, 'd');
    return path + "/" + std::string(length - path.size() - 1, 'f');
}

TEST(ReadFile, PathsAroundTheFirstGuessOfItsLength) {
    // The path buffer starts at 128 bytes with the terminator: 127 characters fit, 128 and
    // more make it grow to the exact size.
    TempDir dir;
    for (size_t length : {126u, 127u, 128u, 129u, 600u}) {
        std::string file = path_of_length(dir, length);
        ASSERT_TRUE(dir.write(file.substr(dir.path().size() + 1), std::to_string(length)));
        char buffer[16];
        EXPECT_EQ(ktread_filef(buffer, sizeof buffer, "%s", file.c_str()), 3) << length;
        EXPECT_EQ(std::string(buffer), std::to_string(length));
    }
}

// ---- USB and SCSI attributes

// A USB device directory as the kernel shows it for a typical stick.
struct UsbTree : ::testing::Test {
    TempDir dir;
    std::string usb = dir / "usb1/1-1";
    void SetUp() override {
        ASSERT_FALSE(dir.path().empty());
        for (auto [name, value] :
             {std::pair<const char *, const char *>{"serial", "AA0123456789\n"},
              {"manufacturer", "SanDisk\n"},
              {"product", "Cruzer Blade\n"},
              {"idVendor", "0781\n"},
              {"idProduct", "5567\n"},
              {"speed", "480\n"}})
            ASSERT_TRUE(dir.write(std::string("usb1/1-1/") + name, value));
    }
    void set(const char *name, const std::string &bytes) {
        ASSERT_TRUE(dir.write(std::string("usb1/1-1/") + name, bytes));
    }
};

TEST_F(UsbTree, ReadsEveryAttribute) {
    sddb_disk_info info = blank_disk_info();
    ASSERT_EQ(get_sysusbdata(usb.c_str(), &info), 0);
    EXPECT_STREQ(info.serial, "AA0123456789");
    EXPECT_STREQ(info.manufacturer, "SanDisk");
    EXPECT_STREQ(info.product, "Cruzer Blade");
    EXPECT_EQ(info.id_vendor, 0x0781);
    EXPECT_EQ(info.id_product, 0x5567);
    EXPECT_EQ(info.speed, 480);
}

TEST_F(UsbTree, MissingAttributesLeaveTheirFields) {
    // Each attribute removed in turn: its field keeps what it held, the others are read.
    struct Field {
        const char *file;
        std::function<bool(const sddb_disk_info &)> kept;
    } fields[] = {
        {"serial", [](const sddb_disk_info &i) { return std::strcmp(i.serial, "old") == 0; }},
        {"manufacturer",
         [](const sddb_disk_info &i) { return std::strcmp(i.manufacturer, "old") == 0; }},
        {"product", [](const sddb_disk_info &i) { return std::strcmp(i.product, "old") == 0; }},
        {"idVendor", [](const sddb_disk_info &i) { return i.id_vendor == 0xbeef; }},
        {"idProduct", [](const sddb_disk_info &i) { return i.id_product == 0xbeef; }},
        {"speed", [](const sddb_disk_info &i) { return i.speed == 12; }},
    };
    for (const Field &missing : fields) {
        SetUp();
        ASSERT_EQ(unlink((usb + "/" + missing.file).c_str()), 0);
        sddb_disk_info info = blank_disk_info();
        std::snprintf(info.serial, sizeof info.serial, "old");
        std::snprintf(info.manufacturer, sizeof info.manufacturer, "old");
        std::snprintf(info.product, sizeof info.product, "old");
        info.id_vendor = info.id_product = 0xbeef;
        info.speed = 12;
        ASSERT_EQ(get_sysusbdata(usb.c_str(), &info), 0);
        for (const Field &f : fields)
            EXPECT_EQ(f.kept(info), &f == &missing)
                << f.file << " with " << missing.file << " missing";
    }
}

TEST_F(UsbTree, NumberConversions) {
    // The speed is decimal and becomes 0 when it does not convert; an id is hexadecimal and
    // keeps its old value then; an empty file changes neither.
    struct Case {
        const char *file;
        std::string text;
        long value;
    } cases[] = {
        {"speed", "1.5\n", 1},
        {"speed", "480\n", 480},
        {"speed", "  12\n", 12},
        {"speed", "-3", -3},
        {"speed", "abc\n", 0},
        {"speed", "\n", 0},
        {"speed", "\xff\xfe\x01", 0},
        {"speed", "", 77},
        {"speed", "99999999999", 2147483647},
        {"idVendor", "0781\n", 0x0781},
        {"idVendor", "1d6b", 0x1d6b},
        {"idVendor", "0x1d6b\n", 0x1d6b},
        {"idVendor", "12345", 0x2345}, // the low 16 bits
        {"idVendor", "zz\n", 0xbeef},
        {"idVendor", "\x01\xff", 0xbeef},
        {"idVendor", "", 0xbeef},
    };
    for (const Case &c : cases) {
        set(c.file, c.text);
        sddb_disk_info info = blank_disk_info();
        info.speed = 77;
        info.id_vendor = 0xbeef;
        ASSERT_EQ(get_sysusbdata(usb.c_str(), &info), 0);
        long value = std::strcmp(c.file, "speed") == 0 ? info.speed : info.id_vendor;
        EXPECT_EQ(value, c.value) << c.file << " \"" << c.text << "\"";
    }
}

TEST_F(UsbTree, LongAndBinarySerials) {
    sddb_disk_info info = blank_disk_info();
    set("serial", std::string(300, 'S'));
    ASSERT_EQ(get_sysusbdata(usb.c_str(), &info), 0);
    EXPECT_EQ(std::string(info.serial), std::string(255, 'S'));

    set("serial", std::string(254, 'S') + "\n");
    ASSERT_EQ(get_sysusbdata(usb.c_str(), &info), 0);
    EXPECT_EQ(std::string(info.serial), std::string(254, 'S')) << "a newline at the last place";

    const std::string junk("\x01\x7f\xff\xfe\"$(x)\x1b", 10);
    set("serial", junk + std::string("\0tail", 5));
    ASSERT_EQ(get_sysusbdata(usb.c_str(), &info), 0);
    EXPECT_EQ(std::string(info.serial), junk) << "kept byte for byte up to a NUL";
}

TEST_F(UsbTree, PathMustBeAnExistingDirectory) {
    sddb_disk_info info = blank_disk_info();
    std::memset(&info, 0x5c, sizeof info);
    const sddb_disk_info before = info;
    const std::string serial_file = usb + "/serial";
    for (const char *path :
         {serial_file.c_str(), "/nonexistent/usb", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(get_sysusbdata(path, &info), -1) << (path ? path : "null");
    EXPECT_EQ(std::memcmp(&info, &before, sizeof info), 0) << "nothing was read";
    EXPECT_EQ(get_sysusbdata(usb.c_str(), nullptr), -1);

    // sysfs hands out symbolic links to device directories.
    ASSERT_EQ(symlink(usb.c_str(), (dir / "link").c_str()), 0);
    EXPECT_EQ(get_sysusbdata((dir / "link").c_str(), &info), 0);
    EXPECT_STREQ(info.serial, "AA0123456789");
}

TEST(ScsiTree, VendorAndModelKeepTheirPadding) {
    TempDir dir;
    ASSERT_TRUE(dir.write("host0/vendor", "SanDisk \n"));
    ASSERT_TRUE(dir.write("host0/model", "Cruzer Blade    \n"));
    sddb_disk_info info = blank_disk_info();
    ASSERT_EQ(get_sysscsidata((dir / "host0").c_str(), &info), 0);
    EXPECT_STREQ(info.vendor, "SanDisk ");
    EXPECT_STREQ(info.model, "Cruzer Blade    ");

    ASSERT_EQ(unlink((dir / "host0/model").c_str()), 0);
    std::snprintf(info.model, sizeof info.model, "old");
    ASSERT_EQ(get_sysscsidata((dir / "host0").c_str(), &info), 0);
    EXPECT_STREQ(info.model, "old");

    EXPECT_EQ(get_sysscsidata((dir / "host0/vendor").c_str(), &info), -1);
    EXPECT_EQ(get_sysscsidata(nullptr, &info), -1);
    EXPECT_EQ(get_sysscsidata(dir.path().c_str(), nullptr), -1);
}

// ---- block attributes

TEST(BlockTree, SizeAndRemovable) {
    struct Case {
        const char *size;      // null: no file
        const char *removable; // null: no file
        uint32_t was_removable;
        uint32_t size_mib;
        uint32_t removable_after;
    } cases[] = {
        {"3907029168\n", "1\n", 0, 1907729, 1},
        {"2047\n", "0\n", 0, 0, 0},
        {"2048\n", "0\n", 1, 1, 1}, // never cleared
        {"2\n", "5\n", 0, 0, 1},
        {"8796093032448\n", "-1\n", 0, 5, 0}, // (2^32 + 5) MiB keeps its low 32 bits
        {"abc\n", "abc\n", 0, 4242, 0},
        {"", "", 0, 4242, 0},
        {nullptr, nullptr, 1, 4242, 1},
    };
    for (const Case &c : cases) {
        TempDir dir;
        if (c.size != nullptr) {
            ASSERT_TRUE(dir.write("sdb/size", c.size));
        }
        if (c.removable != nullptr) {
            ASSERT_TRUE(dir.write("sdb/removable", c.removable));
        }
        ASSERT_TRUE(dir.write("sdb/dev", "8:16\n"));
        sddb_disk_info disk = blank_disk_info();
        sddb_part_info part = blank_part_info();
        disk.removable = c.was_removable;
        part.size_mib = 4242;
        ASSERT_EQ(get_sysblockdata((dir / "sdb").c_str(), &disk, &part), 0);
        EXPECT_EQ(part.size_mib, c.size_mib) << "size " << (c.size ? c.size : "missing");
        EXPECT_EQ(disk.removable, c.removable_after)
            << "removable " << (c.removable ? c.removable : "missing");
    }
}

TEST(BlockTree, ChecksItsArguments) {
    TempDir dir;
    ASSERT_TRUE(dir.write("sdb/size", "2048\n"));
    sddb_disk_info disk = blank_disk_info();
    sddb_part_info part = blank_part_info();
    EXPECT_EQ(get_sysblockdata((dir / "sdb/size").c_str(), &disk, &part), -1);
    EXPECT_EQ(get_sysblockdata(nullptr, &disk, &part), -1);
    EXPECT_EQ(get_sysblockdata((dir / "sdb").c_str(), nullptr, &part), -1);
    EXPECT_EQ(get_sysblockdata((dir / "sdb").c_str(), &disk, nullptr), -1);
    EXPECT_EQ(part.size_mib, 0u);
}

TEST(BlockDevice, ReadsARealLoopDevice) {
    KT_REQUIRE(geteuid() == 0, "needs root to attach a loop device");
    TempDir dir;
    ASSERT_TRUE(testutil::run("truncate -s 12M " + testutil::shell_quoted(dir / "disk.img")));
    testutil::LoopDevice loop(dir / "disk.img");
    KT_REQUIRE(!loop.device().empty(), "no loop device could be attached");

    std::string block = "/sys/block/" + loop.name();
    for (uint32_t was_removable : {0u, 1u}) {
        sddb_disk_info disk = blank_disk_info();
        sddb_part_info part = blank_part_info();
        disk.removable = was_removable;
        ASSERT_EQ(get_sysblockdata(block.c_str(), &disk, &part), 0);
        EXPECT_EQ(part.size_mib, 12u) << block;
        EXPECT_EQ(disk.removable, was_removable) << "a loop device is not removable";
    }
    sddb_disk_info disk = blank_disk_info();
    sddb_part_info part = blank_part_info();
    EXPECT_EQ(get_sysblockdata((block + "/size").c_str(), &disk, &part), -1) << "a regular file";
}

} // namespace
