// Tests of loading the daemon's settings file: defaults, required keys, numbers, long values.
#include "config/sysconf.h"
#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

using kt_test::scratch_dir;
using kt_test::write_file;
using Changes = std::map<std::string, std::optional<std::string>>;

template <size_t N> std::string text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// A settings file of the required keys with plain values, with `changes` made (a key without
// a value is left out).
std::string settings_file(const Changes &changes = {}) {
    Changes keys = {{"SHAREDIR", "/tmp/share"}, {"TMPDIR", "/tmp"}, {"DRVNAME", "USB"},
                    {"MNTGID", "100"},          {"DMOUNT", "3"},    {"MAXPART", "16"}};
    for (const auto &[key, value] : changes)
        keys[key] = value;
    std::string out;
    for (const auto &[key, value] : keys)
        out += value ? key + "=" + *value + "\n" : "";
    return out;
}

struct LoadSysconf : ::testing::Test {
    scratch_dir dir;
    std::string path = dir / "nas.conf";
    hotplugd_settings settings{};

    int load(const std::string &file) {
        std::memset(&settings, 0, sizeof settings);
        return write_file(path, file) ? load_sysconf(path.c_str(), &settings) : -2;
    }
};

TEST_F(LoadSysconf, PlainFileWithADirectoryLongerThanItsField) {
    const std::string s1024(1024, 'S');
    ASSERT_EQ(load(settings_file({{"SHAREDIR", s1024 + "more"}})), 0);
    EXPECT_EQ(std::string(settings.share_dir, sizeof settings.share_dir), s1024);
    EXPECT_EQ(text(settings.tmp_dir), "/tmp");
    EXPECT_EQ(text(settings.prog), "");
    EXPECT_EQ(text(settings.rom_device), "") << "never read from the file";
    EXPECT_EQ(settings.mount_gid, 100u);
    EXPECT_EQ(settings.mount_delay, 3u);
    EXPECT_EQ(settings.max_part, 16u);
}

// Name patterns, also those that fill their fields: making room for "%D" never spills into the
// next field, and never leaves half a UTF-8 character, a lone "%" or a cut-off "%V" in force.
TEST_F(LoadSysconf, NamePatterns) {
    const std::string a252(252, 'a'), a253(253, 'a');
    struct Case {
        std::string drvname;
        std::optional<std::string> vlabel;
        std::string drive_name_format, fallback_name_format;
        uint32_t use_volume_label;
    } cases[] = {
        {"USB", {}, "USB%D", "USB%D", 0},
        {"%V", {}, "%V%D", "Drive-%D", 1},
        {"%V", "", "%V%D", "Drive-%D", 1},
        {"%V_%D", "Disk", "%V_%D", "Disk%D", 1},
        {"%D-%V", "Disk%D-x", "%D-%V", "Disk%D-x", 1},
        {"USB-%D", "Ignored", "USB-%D", "USB-%D", 0}, // VLABEL is read only for "%V"
        {"abc%", {}, "abc%%D", "abc%%D", 0},
        {std::string(254, 'a'), {}, a253 + "%D", a253.substr(0, 125) + "%D", 0},
        {std::string(255, 'a'), {}, a253 + "%D", a253.substr(0, 125) + "%D", 0},
        {std::string(256, 'a'), {}, a253 + "%D", a253.substr(0, 125) + "%D", 0},
        {"%V" + std::string(253, 'x'), "Disk", "%V" + std::string(251, 'x') + "%D", "Disk%D", 1},
        {"%V", std::string(200, 'v'), "%V%D", std::string(125, 'v') + "%D", 1},
        {a252 + "\xc3\xa9" + "b", {}, a252 + "%D", a252.substr(0, 125) + "%D", 0},
        {a252 + "%V" + "b", {}, a252 + "%D", "Drive-%D", 0},
        {a253 + "%V", {}, a253 + "%D", "Drive-%D", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.drvname);
        ASSERT_EQ(load(settings_file({{"DRVNAME", c.drvname}, {"VLABEL", c.vlabel}})), 0);
        EXPECT_EQ(text(settings.drive_name_format), c.drive_name_format);
        EXPECT_EQ(text(settings.fallback_name_format), c.fallback_name_format);
        EXPECT_EQ(text(settings.rom_device), "");
        EXPECT_EQ(settings.use_volume_label, c.use_volume_label);
    }
}

TEST_F(LoadSysconf, ProgOnlyWhenExecutable) {
    const std::string script = dir / "hook.sh", plain = dir / "plain.sh";
    ASSERT_TRUE(write_file(script, "#!/bin/sh\n") && write_file(plain, "#!/bin/sh\n"));
    ASSERT_EQ(chmod(script.c_str(), 0755), 0);
    for (const auto &[prog, loaded] : {std::pair{script, script}, {plain, ""}, {dir / "no", ""}}) {
        ASSERT_EQ(load(settings_file({{"PROG", prog}})), 0);
        EXPECT_EQ(text(settings.prog), loaded) << prog;
    }
}

TEST_F(LoadSysconf, NumbersAsScanfReadsThem) {
    for (const auto &[value, number] : {std::pair<std::string, uint32_t>{"12abc", 12},
                                        {" 7", 7},
                                        {"-1", 4294967295u},
                                        {"-5", 4294967291u}}) {
        ASSERT_EQ(load(settings_file({{"MNTGID", value}, {"DMOUNT", value}, {"MAXPART", value}})),
                  0);
        EXPECT_EQ(settings.mount_gid, number) << value;
        EXPECT_EQ(settings.mount_delay, number) << value;
        EXPECT_EQ(settings.max_part, number) << value;
    }
}

TEST_F(LoadSysconf, Failures) {
    std::vector<std::pair<std::string, std::string>> cases; // what, file content
    for (const char *key : {"SHAREDIR", "TMPDIR", "DRVNAME", "MNTGID", "DMOUNT", "MAXPART"})
        cases.emplace_back(std::string("missing ") + key, settings_file({{key, {}}}));
    cases.emplace_back("empty DRVNAME", settings_file({{"DRVNAME", ""}}));
    for (const char *key : {"MNTGID", "DMOUNT", "MAXPART"})
        cases.emplace_back(std::string(key) + "=abc", settings_file({{key, "abc"}}));
    cases.emplace_back("keys only in a section", "[main]\n" + settings_file());
    for (const auto &[what, file] : cases)
        EXPECT_EQ(load(file), -1) << what;
    EXPECT_EQ(load_sysconf((dir / "missing.conf").c_str(), &settings), -1);
    EXPECT_EQ(load_sysconf(nullptr, &settings), -1);
    EXPECT_EQ(load_sysconf(path.c_str(), nullptr), -1);
}

} // namespace
