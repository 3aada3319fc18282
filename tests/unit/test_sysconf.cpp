// Tests of loading the daemon's settings file: name patterns, the hook program, numbers, failures.
#include "config/sysconf.h"
#include "tests/helpers/scratch.h"

template <size_t N> std::string text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// Room made for "%D" in a full pattern never spills over, splits a character, or keeps a cut "%V".
TEST(LoadSysconf, PatternsValuesAndFailures) {
    kt_test::scratch_dir dir;
    const std::string path = dir / "nas.conf", a252(252, 'a'), a125(125, 'a'), big(1030, 'S');
    hotplugd_settings s{};
    // `first` (a key's first occurrence counts), then every required key but `left_out`.
    auto load = [&](const std::string &first, const std::string &left_out = "-") {
        std::string file =
            first + "\nSHAREDIR=/s\nTMPDIR=/t\nDRVNAME=USB\nMNTGID=9\nDMOUNT=3\nMAXPART=16";
        if (size_t at = file.find("\n" + left_out + "="); at != std::string::npos)
            file.erase(at, file.find('\n', at + 1) - at);
        s = hotplugd_settings{};
        std::memcpy(s.rom_device, "canary", 7); // never a key
        return kt_test::write_file(path, file) ? load_sysconf(path.c_str(), &s) : -2;
    };
    const std::pair<std::string, std::string> cases[] = {
        {"DRVNAME=USB-%D\nVLABEL=Ignored", "USB-%D USB-%D 0"},
        {"DRVNAME=%V\nVLABEL=" + std::string(200, 'v'), "%V%D " + std::string(125, 'v') + "%D 1"},
        {"DRVNAME=" + a252 + "%", a252 + "%%D " + a125 + "%D 0"},
        {"DRVNAME=" + a252 + "aaaa", a252 + "a%D " + a125 + "%D 0"},
        {"DRVNAME=" + a252 + "\xc3\xa9" + "b", a252 + "%D " + a125 + "%D 0"},
        {"DRVNAME=" + a252 + "%Vb", a252 + "%D Drive-%D 0"}};
    for (const auto &[first, patterns] : cases) {
        ASSERT_EQ(load(first), 0) << first;
        EXPECT_EQ(text(s.drive_name_format) + " " + text(s.fallback_name_format) + " " +
                      std::to_string(s.use_volume_label) + text(s.rom_device),
                  patterns + "canary");
    }
    ASSERT_TRUE(kt_test::write_file(dir / "hook", "") && chmod((dir / "hook").c_str(), 0755) == 0);
    for (const auto &[prog, loaded] : {std::pair{dir / "hook", dir / "hook"}, {path, ""}}) {
        ASSERT_EQ(load("PROG=" + prog + "\nSHAREDIR=" + big + "\nMNTGID=-1\nDMOUNT=12abc"), 0);
        EXPECT_EQ(text(s.prog), loaded) << "only an executable";
    }
    EXPECT_EQ(text(s.share_dir) + text(s.tmp_dir), std::string(1024, 'S') + "/t");
    EXPECT_TRUE(s.mount_gid == 4294967295u && s.mount_delay == 12 && s.max_part == 16);
    for (const char *key : {"SHAREDIR", "TMPDIR", "DRVNAME", "MNTGID", "DMOUNT", "MAXPART"})
        EXPECT_EQ(load("", key), -1) << key;
    for (const std::string key : {"MNTGID", "DMOUNT", "MAXPART"})
        EXPECT_EQ(load(key + "=abc"), -1) << key;
    EXPECT_TRUE(load("DRVNAME=") == -1 && load_sysconf((dir / "missing").c_str(), &s) == -1 &&
                load_sysconf(path.c_str(), nullptr) == -1);
}
