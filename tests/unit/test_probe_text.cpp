// Tests of what disktype's output and a label tool's text are taken to mean.
#include "mount/probe_text.h"
#include "tests/helpers/scratch.h"

// The kind that disktype's lines, joined by "|", give.
int32_t kind_of(const std::string &lines) {
    probe_scan scan{};
    for (size_t at = 0, end = 0; end != std::string::npos; at = end + 1) {
        end = lines.find('|', at);
        probe_scan_line(&scan, lines.substr(at, end - at).c_str());
    }
    return scan.kind;
}

std::string cleaned(const std::string &raw, size_t out_size = 128) {
    std::vector<char> out(out_size, 'X');
    int n = probe_clean_label(raw.c_str(), out.data(), out.size());
    EXPECT_EQ(n, static_cast<int>(std::string(out.data()).size())) << raw;
    return out.data();
}

TEST(ProbeText, KindsFromDisktypeLinesAndLabelsForShareNames) {
    const std::pair<const char *, int32_t> cases[] = {
        {"--- /tmp/dev/sdb1|FAT32 file system (hints score 5 of 5)|  Volume name \"X\"", 20},
        {"DOS/MBR partition map|  Type 0x0C (Win95 FAT32 (LBA))|  FAT32 file system", 1},
        {"Ext2 file system|Whatever partition_map", 1}, // a map wins after a file system
        {"  Type 0x83 (Linux)|Ext3 file system", 34},   // a type is only a hint
        {"Ext3 file system|  Type 0x07|Ext2 file system|Linux swap, v2", 34},
        {"Ext4 file system|Type 0x86|Type 0xef|Type 0xZZ|Type 0x", 0},
        {"Linux swap, version 2, subversion 1", 37},
        {"Type 0x82|Type 0x84", 37}}; // an unlisted code leaves the kind
    const std::pair<const char *, int32_t> simple[] = {
        {"  Type 0x83 (Linux)", 32}, {" FAT32X file system", 17}, {"NTFS file system", 21},
        {"Ext2 file system", 33},    {"Linux swap", 0},           {"Type 0x85", 1},
        {"Type 0x1e|Type 0x0B", 20}, {"Type 0x17", 21},           {"Type 0x5)", 1}};
    for (auto [lines, kind] : cases)
        EXPECT_EQ(kind_of(lines), kind) << lines;
    for (auto [lines, kind] : simple)
        EXPECT_EQ(kind_of(lines), kind) << lines;
    probe_scan scan{};
    probe_scan_line(&scan, nullptr); // refused, not read
    const std::string e_acute = "\xc3\xa9", a119(119, 'a'), a120(120, 'a');
    const std::pair<std::string, std::string> labels[] = {
        {"/\"'`*\\|:? ", "__________"},
        {"<a>[b]", "(a)(b)"},
        {"\001a\037b\177c\r\n", "abc"},
        {"$(reboot);&~", "$(reboot);&~"},
        {"Caf" + e_acute, "Caf" + e_acute},
        {"\xc3(", ""}, // not UTF-8: no label
        {std::string(127, 'a'), std::string(121, 'a')},
        {a120 + e_acute + "bbbbb", a120}, // not split
        {a119 + e_acute + "bbbbb", a119 + e_acute},
        {std::string(130, '\x01') + "x", "x"}};
    for (const auto &[raw, label] : labels)
        EXPECT_EQ(cleaned(raw), label) << raw;
    EXPECT_TRUE(cleaned("ab" + e_acute, 4) == "ab" && cleaned(e_acute, 2).empty() &&
                cleaned("abc", 1).empty());
    char out[8];
    EXPECT_TRUE(probe_clean_label(nullptr, out, sizeof out) == -1 &&
                probe_clean_label("x", out, 0) == -1);
}
