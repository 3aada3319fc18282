// Tests of loading the daemon's settings file: defaults, required keys, numbers, long values.
#include "config/sysconf.h"
#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

using kt_test::scratch_dir;
using kt_test::write_file;

template <size_t N> std::string text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// A settings file: the required keys with plain values, changed with set() and drop().
struct Settings {
    std::vector<std::pair<std::string, std::string>> keys = {
        {"SHAREDIR", "/tmp/share"}, {"TMPDIR", "/tmp"}, {"DRVNAME", "USB"},
        {"MNTGID", "100"},          {"DMOUNT", "3"},    {"MAXPART", "16"},
    };
    Settings &set(const std::string &key, const std::string &value) {
        for (auto &kv : keys) {
            if (kv.first == key) {
                kv.second = value;
                return *this;
            }
        }
        keys.emplace_back(key, value);
        return *this;
    }
    Settings &drop(const std::string &key) {
        for (auto it = keys.begin(); it != keys.end(); ++it) {
            if (it->first == key) {
                keys.erase(it);
                break;
            }
        }
        return *this;
    }
    std::string file() const {
        std::string out;
        for (const auto &kv : keys)
            out += kv.first + "=" + kv.second + "\n";
        return out;
    }
};

struct LoadSysconf : ::testing::Test {
    scratch_dir dir;
    std::string path = dir / "nas.conf";
    hotplugd_settings settings{};

    int load(const Settings &s) {
        std::memset(&settings, 0, sizeof settings);
        if (!write_file(path, s.file()))
            return -2;
        return load_sysconf(path.c_str(), &settings);
    }
};

TEST_F(LoadSysconf, PlainFile) {
    ASSERT_EQ(load(Settings()), 0);
    EXPECT_EQ(text(settings.share_dir), "/tmp/share");
    EXPECT_EQ(text(settings.tmp_dir), "/tmp");
    EXPECT_EQ(text(settings.prog), "");
    EXPECT_EQ(text(settings.rom_device), "") << "never read from the file";
    EXPECT_EQ(settings.mount_gid, 100u);
    EXPECT_EQ(settings.mount_delay, 3u);
    EXPECT_EQ(settings.max_part, 16u);
}

TEST_F(LoadSysconf, NamePatterns) {
    struct Case {
        const char *drvname;
        const char *vlabel; // null: no VLABEL key
        const char *drive_name_format;
        const char *fallback_name_format;
        uint32_t use_volume_label;
    };
    const Case cases[] = {
        {"USB", nullptr, "USB%D", "USB%D", 0},
        {"%V", nullptr, "%V%D", "Drive-%D", 1},
        {"%V_%D", "Disk", "%V_%D", "Disk%D", 1},
        {"%V", "", "%V%D", "Drive-%D", 1},
        {"%D-%V", "Disk%D-x", "%D-%V", "Disk%D-x", 1},
        {"USB-%D", "Ignored", "USB-%D", "USB-%D", 0}, // VLABEL is read only for "%V"
        {"abc%", nullptr, "abc%%D", "abc%%D", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.drvname);
        Settings s;
        s.set("DRVNAME", c.drvname);
        if (c.vlabel != nullptr)
            s.set("VLABEL", c.vlabel);
        ASSERT_EQ(load(s), 0);
        EXPECT_EQ(text(settings.drive_name_format), c.drive_name_format);
        EXPECT_EQ(text(settings.fallback_name_format), c.fallback_name_format);
        EXPECT_EQ(settings.use_volume_label, c.use_volume_label);
    }
}

TEST_F(LoadSysconf, ProgOnlyWhenExecutable) {
    const std::string script = dir / "hook.sh", plain = dir / "plain.sh";
    ASSERT_TRUE(write_file(script, "#!/bin/sh\n"));
    ASSERT_TRUE(write_file(plain, "#!/bin/sh\n"));
    ASSERT_EQ(chmod(script.c_str(), 0755), 0);
    ASSERT_EQ(chmod(plain.c_str(), 0644), 0);
    const std::pair<std::string, std::string> cases[] = {
        {script, script},
        {plain, ""},
        {dir / "missing", ""},
        {"", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first);
        ASSERT_EQ(load(Settings().set("PROG", c.first)), 0);
        EXPECT_EQ(text(settings.prog), c.second);
    }
}

TEST_F(LoadSysconf, NumbersAsScanfReadsThem) {
    const std::pair<std::string, uint32_t> cases[] = {
        {"0", 0},
        {"12abc", 12},
        {" 7", 7},
        {"4294967295", 4294967295u},
        {"-1", 4294967295u},
        {"-5", 4294967291u},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first);
        ASSERT_EQ(
            load(Settings().set("MNTGID", c.first).set("DMOUNT", c.first).set("MAXPART", c.first)),
            0);
        EXPECT_EQ(settings.mount_gid, c.second);
        EXPECT_EQ(settings.mount_delay, c.second);
        EXPECT_EQ(settings.max_part, c.second);
    }
}

TEST_F(LoadSysconf, Failures) {
    std::vector<std::pair<std::string, std::string>> cases; // what, file content
    for (const char *key : {"SHAREDIR", "TMPDIR", "DRVNAME", "MNTGID", "DMOUNT", "MAXPART"})
        cases.emplace_back(std::string("missing ") + key, Settings().drop(key).file());
    cases.emplace_back("empty DRVNAME", Settings().set("DRVNAME", "").file());
    for (const char *key : {"MNTGID", "DMOUNT", "MAXPART"}) {
        cases.emplace_back(std::string(key) + "=abc", Settings().set(key, "abc").file());
        cases.emplace_back(std::string(key) + "=", Settings().set(key, "").file());
    }
    cases.emplace_back("keys only in a section", "[main]\n" + Settings().file());
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first);
        ASSERT_TRUE(write_file(path, c.second));
        EXPECT_EQ(load_sysconf(path.c_str(), &settings), -1);
    }
    EXPECT_EQ(load_sysconf((dir / "missing.conf").c_str(), &settings), -1);
    EXPECT_EQ(load_sysconf(nullptr, &settings), -1);
    EXPECT_EQ(load_sysconf(path.c_str(), nullptr), -1);
}

// Values as long as their fields or longer: copies stop at the width, and making room for
// "%D" never spills into the next field.
TEST_F(LoadSysconf, LongValuesStayInTheirFields) {
    const std::string s1024(1024, 'S'), a255(255, 'A'), a256(256, 'A');

    ASSERT_EQ(load(Settings().set("SHAREDIR", s1024 + "more").set("DRVNAME", a255)), 0);
    EXPECT_EQ(std::string(settings.share_dir, sizeof settings.share_dir), s1024)
        << "filled without a NUL";
    EXPECT_EQ(text(settings.tmp_dir), "/tmp");
    EXPECT_EQ(text(settings.drive_name_format), std::string(253, 'A') + "%D");
    EXPECT_EQ(text(settings.fallback_name_format), std::string(125, 'A') + "%D");
    EXPECT_EQ(text(settings.rom_device), "");
    EXPECT_EQ(settings.mount_gid, 100u);

    ASSERT_EQ(load(Settings().set("DRVNAME", a256)), 0);
    EXPECT_EQ(text(settings.drive_name_format), std::string(253, 'A') + "%D");
    EXPECT_EQ(text(settings.fallback_name_format), std::string(125, 'A') + "%D");
    EXPECT_EQ(text(settings.rom_device), "");

    for (const std::string &drvname :
         {"%V" + std::string(253, 'x'), "%V" + std::string(254, 'x')}) {
        SCOPED_TRACE(drvname.size());
        ASSERT_EQ(load(Settings().set("DRVNAME", drvname).set("VLABEL", "Disk")), 0);
        EXPECT_EQ(text(settings.drive_name_format), "%V" + std::string(251, 'x') + "%D");
        EXPECT_EQ(text(settings.fallback_name_format), "Disk%D") << "not overwritten";
        EXPECT_EQ(settings.use_volume_label, 1u);
    }

    ASSERT_EQ(load(Settings().set("DRVNAME", "%V").set("VLABEL", std::string(200, 'v'))), 0);
    EXPECT_EQ(text(settings.fallback_name_format), std::string(125, 'v') + "%D");
    EXPECT_EQ(text(settings.rom_device), "");
}

// Where the pattern is cut to make room, it is cut at a character boundary, not after a lone
// "%", and a "%V" that had to go leaves labels switched off.
TEST_F(LoadSysconf, CutPatternsStayWhole) {
    struct Case {
        std::string drvname, drive_name_format;
        uint32_t use_volume_label;
    };
    const Case cases[] = {
        {std::string(252, 'a') + "\xc3\xa9" + "b", std::string(252, 'a') + "%D", 0},
        {std::string(251, 'a') + "\xe2\x82\xac" + "b", std::string(251, 'a') + "%D", 0},
        {std::string(252, 'a') + "%V" + "b", std::string(252, 'a') + "%D", 0},
        {std::string(253, 'a') + "%V", std::string(253, 'a') + "%D", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.drvname);
        ASSERT_EQ(load(Settings().set("DRVNAME", c.drvname)), 0);
        EXPECT_EQ(text(settings.drive_name_format), c.drive_name_format);
        EXPECT_EQ(settings.use_volume_label, c.use_volume_label);
    }
}

} // namespace
