// Tests of what disktype's output and a label tool's text are taken to mean.
#include "mount/probe_text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

int32_t kind_of(const std::vector<std::string> &lines) {
    probe_scan scan{};
    for (const std::string &line : lines)
        probe_scan_line(&scan, line.c_str());
    return scan.kind;
}

TEST(ProbeScan, KindFromDisktypeLines) {
    struct Case {
        std::vector<std::string> lines;
        int32_t kind;
    } cases[] = {
        {{"--- /tmp/dev/sdb1", "FAT32 file system (hints score 5 of 5)", "  Volume name \"X\""},
         20},
        {{"DOS/MBR partition map", "Partition 1: 20 MiB", "  Type 0x0C (Win95 FAT32 (LBA))",
          "  FAT32 file system"},
         1},
        {{"Ext2 file system", "Whatever partition_map"}, 1}, // a map wins after a file system
        {{"  Type 0x83 (Linux)"}, 32},
        {{"  Type 0x83 (Linux)", "Ext3 file system"}, 34}, // a type is only a hint
        {{"Ext3 file system", "  Type 0x07", "Ext2 file system", "Linux swap, v2"}, 34},
        {{"XFS file system"}, 0},
        {{"Ext4 file system", "Type 0x86", "Type 0xff", "Type 0xZZ", "Type 0x"}, 0},
        {{"NTFS file system"}, 21},
        {{"  FAT16 file system"}, 17},
        {{"FAT32X file system"}, 17},
        {{"Ext2 file system"}, 33},
        {{"Linux swap, version 2, subversion 1"}, 37},
        {{"Linux swap"}, 0},
        {{"Type 0x85"}, 1},
        {{"Type 0x0b", "Type 0x1E"}, 17},
        {{"Type 0x17"}, 21},
        {{"Type 0x82", "Type 0x84"}, 37}, // an unlisted code leaves the kind
        {{"Type 0x5)"}, 1},
        {{"Blank disk/medium"}, 0},
        {{"\x01\xff garbage file systemfile system", ""}, 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(kind_of(c.lines), c.kind) << c.lines.front();
    probe_scan_line(nullptr, "Ext2 file system");
    probe_scan scan{};
    probe_scan_line(&scan, nullptr);
    EXPECT_EQ(scan.kind, 0);
}

std::string cleaned(const std::string &raw, size_t out_size = 128) {
    std::vector<char> out(out_size, 'X');
    int n = probe_clean_label(raw.c_str(), out.data(), out.size());
    EXPECT_EQ(n, static_cast<int>(std::string(out.data()).size())) << raw;
    return out.data();
}

TEST(ProbeLabel, CleanedForShareNames) {
    const std::string e_acute = "\xc3\xa9";
    struct Case {
        std::string raw, label;
    } cases[] = {
        {"My:Disk [1]", "My_Disk_(1)"},
        {" Volume label is MYLABEL    \n", "_Volume_label_is_MYLABEL____"},
        {"/\"'`*\\|:? ", "__________"},
        {"<a>[b]", "(a)(b)"},
        {"\x01"
         "a\x1f"
         "b\x7f"
         "c\r\n",
         "abc"},
        {"$(reboot);&~", "$(reboot);&~"},
        {"Caf" + e_acute, "Caf" + e_acute},
        {"\xc3(", ""}, // not UTF-8: no label
        {"ok\xff", ""},
        {std::string(127, 'a'), std::string(121, 'a')},
        {std::string(120, 'a') + e_acute + "bbbbb", std::string(120, 'a')}, // not split
        {std::string(119, 'a') + e_acute + "bbbbb", std::string(119, 'a') + e_acute},
        {std::string(130, '\x01') + "x", "x"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(cleaned(c.raw), c.label) << c.raw;
    // A short buffer cuts, and never inside a character.
    EXPECT_EQ(cleaned("ab" + e_acute, 4), "ab");
    EXPECT_EQ(cleaned("abc", 1), "");
    char out[8];
    EXPECT_EQ(probe_clean_label(nullptr, out, sizeof out), -1);
    EXPECT_EQ(probe_clean_label("x", nullptr, sizeof out), -1);
    EXPECT_EQ(probe_clean_label("x", out, 0), -1);
}

} // namespace
