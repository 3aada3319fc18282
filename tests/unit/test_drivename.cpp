// Tests of drive names and letters: slots, name rules, the letter file under its real lock.
#include "config/ktcfg.h"
#include "registry/drivename.h"
#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

constexpr char conf[] = "/etc/sysconfig/system.conf";

// Fills a fixed field; a text as long as the field leaves it without a NUL.
template <size_t N> void put(char (&field)[N], const std::string &text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(text.size(), N));
}

// Patterns as the settings loader leaves them when VLABEL is not set.
hotplugd_settings settings(const std::string &drvname) {
    hotplugd_settings s{};
    s.use_volume_label = drvname.find("%V") != std::string::npos;
    put(s.drive_name_format, drvname);
    put(s.fallback_name_format, s.use_volume_label ? "Drive-%D" : drvname);
    put(s.tmp_dir, "/etc/sysconfig");
    return s;
}

const hotplugd_settings plain = settings("Drive-%D");

// The drive_id of partition `part` of disk `index`, with "|" and the drive_name unless that is
// "Drive-" and the drive_id; "-" for a failure. `d` holds serial, vendor, model, volume label.
std::string plug(drive_letter_table &table, const hotplugd_settings &s, int index, int part,
                 std::vector<std::string> d, int fixed = 1) {
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

// How many owners and partition masks are set.
long taken(const drive_letter_table &t) {
    return 156 - std::count(&t.owner[0][0], &t.owner[0][0] + 78, 0u) -
           std::count(&t.partition_mask[0][0], &t.partition_mask[0][0] + 78, 0u);
}

TEST(Drivename, FreshTableAndNullArguments) {
    drive_letter_table table;
    std::memset(&table, 0x5a, sizeof table);
    ASSERT_EQ(initialize_lock_dletter(&table, table.config_path), 0) << "as the daemon calls it";
    EXPECT_TRUE(taken(table) == 0 && table.config_path[0] == '\0');
    sddb_record r{};
    r.drive_slot = 26;
    EXPECT_TRUE(release_drivename(&table, &r) == -1 && release_drivename(nullptr, &r) == -1 &&
                initialize_lock_dletter(nullptr, conf) == -1 &&
                get_drivename(nullptr, nullptr, &r, 0, 0) == -1);
}

// Letters off. The identifier: of the first 128 bytes of a UTF-8 serial, the first word of ASCII
// letters and digits, whole when shorter than 5 characters, else its last four. The name: vendor
// and model give their first word; a label without one is used as it stands unless a slash, "$"
// or control byte could lead out of the share directory or act in a command line.
TEST(Drivename, IdentifiersAndNamesWithLettersOff) {
    const std::string v100(100, 'V'), l120(120, 'L');
    const std::string longer = std::string(120, 'X') + "ABCDEFGHIJ" + std::string(200, 'Q');
    const std::vector<std::string> cases[] = {
        // DRVNAME, outcome; serial, vendor, model, label
        {"Drive-%D", "45671", "AA1234567"},
        {"Drive-%D", "ab1", "ab"},
        {"Drive-%D", "2B4F1", "  0x42B4F"},
        {"Drive-%D", "BCDE1", "ABCDE"},
        {"Drive-%D", "EFGH1", longer},
        {"Drive-%D", "1", "\377\376ABCD"},
        {"%D-%V", "1|1-Acme_Photos", "", "Acme", "Stick", "Photos"},
        {"[%V]%D.", "1|[Acme_Pics]1.", "", "  Acme Inc", "", "Pics"},
        {"%V_%D", "1|My_1", "", "", "My Stick", "\xff"},
        {"%V%D", "1", "", "", "", "\xc3"},
        {"%V%D", "1|" + v100 + "_" + std::string(19, 'L') + "1", "", v100, "", l120},
        {"12345%V%D", "1|12345" + l120 + "1", "", "", "", l120},
        {"123456%V%D", "1", "", "", "", l120},
        {"%V%D", "1", "", std::string(300, 'W')},
        {"%V%D", "1|Ac_ok1", "", "Ac\"me'; rm -rf /", "$(halt)", "\001ok\177"},
        {"%V%D", "1|'; |&(..1", "", "", "", "'; |&(.."},
        {"%V%D", "1", "", "", "", "../"},
        {"%V%D", "1", "", "", "", "$(~)"},
        {"%V%D", "1", "", "", "", "\n\x7f"}};
    drive_letter_table table{};
    for (const auto &c : cases)
        EXPECT_EQ(plug(table, settings(c[0]), 1, 1, {c.begin() + 2, c.end()}, 0), c[1]);
    hotplugd_settings s = settings("Disk%D");
    put(s.fallback_name_format, std::string(130, 'F'));
    EXPECT_EQ(plug(table, s, 1, 1, {}, 0), "1|" + std::string(126, 'F')) << "cut";
    s.use_volume_label = 1; // but no "%V": the fallback name
    EXPECT_EQ(plug(table, s, 1, 1, {"", "Acme", "", "Photos"}, 0), "1|" + std::string(126, 'F'));
    EXPECT_EQ(taken(table), 0);
}

// A letter file as the appliance ships it, every key present, the first ones filled in.
std::string letter_file(std::vector<std::string> values = {}) {
    values.resize(26);
    std::string text;
    for (int i = 0; i < 26; ++i)
        text += "DRIVE_LETTER" + std::string(1, char('A' + i)) + "=" + values[i] + "\n";
    return text;
}

// From a fresh table and the letter file `before` (none for ""): disks plugged in turn, as disk
// index, partition, serial and outcome; then the file and the owners and masks set.
using plugs = std::vector<std::tuple<int, int, std::string, std::string>>;
void scenario(drive_letter_table &table, const std::string &before, const plugs &disks,
              const std::string &after, long slots, const hotplugd_settings &s = plain) {
    unlink(conf);
    ASSERT_TRUE(before.empty() || kt_test::write_file(conf, before));
    ASSERT_EQ(initialize_lock_dletter(&table, conf), 0);
    for (const auto &[index, partition, serial, id] : disks)
        EXPECT_EQ(plug(table, s, index, partition, {serial}), id);
    EXPECT_EQ(kt_test::read_file(conf), after);
    EXPECT_EQ(taken(table), slots);
}

// The letter file lives in the sandbox's /etc/sysconfig, its lock in the sandbox's /var/lock.
TEST(LetterFile, Scenarios) {
    if (!kt_test::in_sandbox())
        GTEST_SKIP() << "needs scripts/sandbox/run: /etc/sysconfig and /var/lock are its tmpfs";
    setlogmask(LOG_MASK(LOG_DEBUG)); // the failed writes provoked here are logged
    drive_letter_table table{};
    // A disk, its second partition, another disk with the same serial; the letter released.
    scenario(table, letter_file(), {{1, 1, "S1", "A1"}, {1, 2, "S1", "A2"}, {2, 1, "S1", "YA1"}},
             letter_file({"S1"}), 4);
    sddb_record first{};
    first.disk_index = 1;
    EXPECT_TRUE(release_drivename(&table, &first) == 0 && plug(table, plain, 3, 1, {"S1"}) == "A1");
    scenario(table, letter_file({"X", "S1"}), {{1, 1, "S1", "B1"}, {2, 1, "S2", "C1"}},
             letter_file({"X", "S1", "S2"}), 4);
    // The first free key ends the search; an absent key is free but not written.
    scenario(table, letter_file({"", "S1"}), {{1, 1, "S1", "A1"}}, letter_file({"S1", "S1"}), 2);
    const std::string without_a = letter_file({"", "S1"}).substr(15);
    scenario(table, without_a, {{1, 1, "S1", "A1"}, {2, 1, "S2", "-"}}, without_a, 2);
    const std::vector<std::string> full(26, "OTHER");
    scenario(table, letter_file(full), {{1, 1, "S1", "A1"}, {2, 1, "S2", "A1"}}, letter_file(full),
             0);
    scenario(table, letter_file({"T"}), {{0, 1, "T", "A1"}}, letter_file({"T"}), 2);
    for (int i = 1; i <= 27; ++i) // twins of a disk with a remembered letter
        EXPECT_EQ(plug(table, plain, i, 1, {"T"}),
                  i < 27 ? "Y" + std::string(1, '@' + i) + "1" : "-");
    EXPECT_EQ(taken(table), 54);
    unlink(KT_CFG_LOCK_FILE);
    ASSERT_EQ(mkdir(KT_CFG_LOCK_FILE, 0755), 0); // nobody can take the lock now
    // Without a serial neither the file nor its lock is used; a line feed would forge keys.
    scenario(table, letter_file(), {{0, 1, "X\nDRIVE_LETTERB=Y", "ZA1"}}, letter_file(), 2);
    for (int i = 1; i <= 26; ++i)
        EXPECT_EQ(plug(table, plain, i, 1, {""}),
                  i < 26 ? "Z" + std::string(1, 'A' + i) + "1" : "-");
    EXPECT_EQ(taken(table), 52);
    scenario(table, letter_file(), {{1, 1, "S1", "-"}}, letter_file(), 0);
    EXPECT_EQ(rmdir(KT_CFG_LOCK_FILE), 0);
    scenario(table, "", {{1, 1, "S1", "-"}}, "", 0);
    // A failed write takes no letter (the fault tests fail the ROM store and flush as well).
    hotplugd_settings s = plain;
    put(s.tmp_dir, "/etc/sysconfig/missing");
    scenario(table, letter_file(), {{1, 1, "S1", "-"}}, letter_file(), 0, s);
}

} // namespace
