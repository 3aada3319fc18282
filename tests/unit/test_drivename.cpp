// Tests of drive names and letters: slots, name rules, the letter file under its real lock.
#include "config/ktcfg.h"
#include "registry/drivename.h"
#include "registry/drivename_internal.h"
#include "tests/helpers/scratch.h"

using namespace kt_test;

constexpr char conf[] = "/etc/sysconfig/system.conf";

// Patterns as the settings loader leaves them when VLABEL is not set.
hotplugd_settings settings(const std::string &drvname, const std::string &tmp = "/etc/sysconfig") {
    hotplugd_settings s{};
    s.use_volume_label = drvname.find("%V") != std::string::npos;
    put(s.drive_name_format, drvname);
    put(s.fallback_name_format, s.use_volume_label ? "Drive-%D" : drvname);
    put(s.tmp_dir, tmp);
    return s;
}

std::string letters(std::vector<std::string> values = {}) {
    values.resize(26);
    std::string text;
    for (int i = 0; i < 26; ++i)
        text += "DRIVE_LETTER" + std::string(1, char('A' + i)) + "=" + values[i] + "\n";
    return text;
}

using plugs = std::vector<std::tuple<int, int, std::string, std::string>>;

struct Drivename : ::testing::Test {
    drive_letter_table table{};

    // The id, "|" and the name unless "Drive-<id>"; "-": failed. `d`: serial, vendor, model, label.
    std::string plug(int index, int part, std::vector<std::string> d, int fixed = 1,
                     const hotplugd_settings &s = settings("Drive-%D")) {
        d.resize(4);
        sddb_record r{};
        std::tie(r.disk_index, r.partition) = std::make_tuple(index, part);
        put(r.disk_info.serial, d[0]);
        put(r.disk_info.vendor, d[1]);
        put(r.disk_info.model, d[2]);
        put(r.part_info.volume_label, d[3]);
        if (get_drivename(&table, &s, &r, 0, fixed) != 0)
            return "-";
        const std::string id = r.part_info.drive_id,
                          name(r.part_info.drive_name, strnlen(r.part_info.drive_name, 128));
        return name == "Drive-" + id ? id : id + "|" + name;
    }

    long taken() const {
        return 156 - std::count(&table.owner[0][0], &table.owner[0][0] + 78, 0u) -
               std::count(&table.partition_mask[0][0], &table.partition_mask[0][0] + 78, 0u);
    }

    void scenario(const std::string &before, const plugs &disks, const std::string &after,
                  long slots, const hotplugd_settings &s = settings("Drive-%D")) {
        unlink(conf);
        ASSERT_TRUE(before.empty() || write_file(conf, before));
        ASSERT_EQ(initialize_lock_dletter(&table, conf), 0);
        for (const auto &[index, partition, serial, id] : disks)
            EXPECT_EQ(plug(index, partition, {serial}, 1, s), id);
        EXPECT_EQ(read_file(conf), after);
        EXPECT_EQ(taken(), slots);
    }
};

TEST_F(Drivename, FreshTableIdentifiersAndNamesWithLettersOff) {
    std::memset(&table, 0x5a, sizeof table);
    ASSERT_EQ(initialize_lock_dletter(&table, table.config_path), 0) << "as the daemon calls it";
    EXPECT_TRUE(taken() == 0 && table.config_path[0] == '\0');
    sddb_record r{};
    r.drive_slot = 26;
    EXPECT_TRUE(release_drivename(&table, &r) == -1 && release_drivename(nullptr, &r) == -1 &&
                get_drivename(nullptr, nullptr, &r, 0, 0) == -1 &&
                drivename::take_slot(&table, 26, 1, 1) == -1 && // past "Z": not in the table
                drivename::take_slot(nullptr, 0, 1, 1) == -1);
    // Letters off. Id: the first word of a UTF-8 serial's first 128 bytes, under 5 whole, else its
    // last four. Vendor and model give their first word; a label stands unless "/", "$" or control.
    const std::string v100(100, 'V'), l120(120, 'L'),
        longer = std::string(120, 'X') + "ABCDEFGHIJ" + std::string(200, 'Q');
    const std::vector<std::string> cases[] = {
        // DRVNAME, outcome; serial, vendor, model, label
        {"[%D]%V.", "1|[1]Acme_Pics.", "", "  Acme Inc", "Stick", "Pics"},
        {"%V_%D", "1|My_1", "", "", "My Stick", "\xff"},
        {"%V%D", "1|" + v100 + "_" + std::string(19, 'L') + "1", "", v100, "", l120},
        {"12345%V%D", "1|12345" + l120 + "1", "", "", "", l120},
        {"123456%V%D", "1", "", "", "", l120},
        {"%V%D", "1|Ac_ok1", "", "Ac\"me'; rm -rf /", "$(halt)", "\001ok\177"},
        {"%V%D", "1|'; |&(..1", "", "", "", "'; |&(.."}};
    const std::pair<std::string, std::string> serials[] = {
        {"AA1234567", "45671"}, {"ab", "ab1"},     {"  0x42B4F", "2B4F1"},
        {"ABCDE", "BCDE1"},     {longer, "EFGH1"}, {"\377\376ABCD", "1"}};
    for (const auto &[serial, id] : serials)
        EXPECT_EQ(plug(1, 1, {serial}, 0), id) << serial;
    for (const char *label : {"\xc3", "../", "$(~)", "\n\x7f"}) // no label: the fallback name
        EXPECT_EQ(plug(1, 1, {"", "", "", label}, 0, settings("%V%D")), "1") << label;
    for (const auto &c : cases)
        EXPECT_EQ(plug(1, 1, {c.begin() + 2, c.end()}, 0, settings(c[0])), c[1]);
    hotplugd_settings s = settings(std::string(130, 'F'));
    EXPECT_EQ(plug(1, 1, {}, 0, s), "1|" + std::string(126, 'F')) << "cut";
    s.use_volume_label = 1; // but no "%V": the fallback name
    EXPECT_EQ(plug(1, 1, {"", "Acme", "", "Photos"}, 0, s), "1|" + std::string(126, 'F'));
    EXPECT_EQ(taken(), 0);
}

TEST_F(Drivename, LetterFileScenarios) {
    KT_NEEDS_SANDBOX("/etc/sysconfig and /var/lock are its tmpfs");
    setlogmask(LOG_MASK(LOG_DEBUG)); // the failed writes provoked here are logged
    // A disk, its second partition, another disk with the same serial; the letter released.
    scenario(letters(), {{1, 1, "S1", "A1"}, {1, 2, "S1", "A2"}, {2, 1, "S1", "YA1"}},
             letters({"S1"}), 4);
    sddb_record first{};
    first.disk_index = 1;
    EXPECT_TRUE(release_drivename(&table, &first) == 0 && plug(3, 1, {"S1"}) == "A1");
    scenario(letters({"X", "S1"}), {{1, 1, "S1", "B1"}, {2, 1, "S2", "C1"}},
             letters({"X", "S1", "S2"}), 4);
    // The first free key ends the search; an absent key is free but not written.
    scenario(letters({"", "S1"}), {{1, 1, "S1", "A1"}}, letters({"S1", "S1"}), 2);
    const std::string without_a = letters({"", "S1"}).substr(15);
    scenario(without_a, {{1, 1, "S1", "A1"}, {2, 1, "S2", "-"}}, without_a, 2);
    const std::vector<std::string> full(26, "OTHER");
    scenario(letters(full), {{1, 1, "S1", "A1"}, {2, 1, "S2", "A1"}}, letters(full), 0);
    scenario(letters({"T"}), {{0, 1, "T", "A1"}}, letters({"T"}), 2);
    for (int i = 1; i <= 27; ++i) // twins of a disk with a remembered letter
        EXPECT_EQ(plug(i, 1, {"T"}), i < 27 ? "Y" + std::string(1, '@' + i) + "1" : "-");
    EXPECT_EQ(taken(), 54);
    unlink(KT_CFG_LOCK_FILE);
    ASSERT_EQ(mkdir(KT_CFG_LOCK_FILE, 0755), 0); // nobody can take the lock now
    // Without a serial neither the file nor its lock is used; a line feed would forge keys.
    scenario(letters(), {{0, 1, "X\nDRIVE_LETTERB=Y", "ZA1"}}, letters(), 2);
    for (int i = 1; i <= 26; ++i)
        EXPECT_EQ(plug(i, 1, {""}), i < 26 ? "Z" + std::string(1, 'A' + i) + "1" : "-");
    EXPECT_EQ(taken(), 52);
    scenario(letters(), {{1, 1, "S1", "-"}}, letters(), 0);
    EXPECT_EQ(rmdir(KT_CFG_LOCK_FILE), 0);
    scenario("", {{1, 1, "S1", "-"}}, "", 0);
    // A failed write takes no letter (the fault tests fail the ROM store and flush as well).
    scenario(letters(), {{1, 1, "S1", "-"}}, letters(), 0,
             settings("Drive-%D", "/etc/sysconfig/no"));
}
