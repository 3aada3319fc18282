// Tests of the sysfs readers on attribute trees in temporary directories.
#include "registry/sysfs.h"
#include "tests/helpers/scratch.h"

TEST(Sysfs, BoundedReadsNumbersAndFailures) {
    kt_test::scratch_dir dir; // a path of 128 characters outgrows the first path buffer
    const std::string attr = dir.path() + "/" + std::string(127 - dir.path().size(), 'f');
    const std::tuple<std::string, size_t, int, std::string> reads[] = {{"AA01\n", 256, 5, "AA01"},
                                                                       {"2\n\n", 256, 3, "2\n"},
                                                                       {"abcd\n", 4, 3, "abc"},
                                                                       {"", 9, 0, ""}};
    for (const auto &[bytes, size, count, text] : reads) {
        ASSERT_TRUE(kt_test::write_file(attr, bytes));
        char area[257];
        std::memset(area, '\n', sizeof area); // the newline before the buffer must stay
        EXPECT_EQ(ktread_filef(area + 1, size, "%s", attr.c_str()), count) << text;
        EXPECT_EQ(area[0] + std::string(area + 1), "\n" + text);
    }
    char kept[8] = "kept";
    EXPECT_TRUE(ktread_filef(kept, sizeof kept, "%s/missing", dir.path().c_str()) == -1 &&
                ktread_filef(kept, sizeof kept, "%s", dir.path().c_str()) == -1 &&
                ktread_filef(kept, 0, "%s", attr.c_str()) == -1 &&
                ktread_filef(nullptr, sizeof kept, "%s", attr.c_str()) == -1 &&
                ktread_filef(kept, sizeof kept, nullptr) == -1);
    EXPECT_STREQ(kept, "kept");
    sddb_disk_info disk{};
    sddb_part_info part{};
    const char *d = dir.path().c_str(), *file = attr.c_str(); // no directory: nothing is read
    EXPECT_TRUE(get_sysusbdata(file, &disk) == -1 && get_sysscsidata(file, &disk) == -1 &&
                get_sysblockdata(file, &disk, &part) == -1 && get_sysusbdata(d, nullptr) == -1 &&
                get_sysscsidata(d, nullptr) == -1 && get_sysblockdata(d, &disk, nullptr) == -1);
    // Attribute files (null: missing), and the fields that held 12, 0xbeef, 4242 and `was` then.
    const struct {
        const char *speed, *id, *size, *removable;
        uint32_t was;
        std::tuple<int32_t, uint16_t, uint32_t, uint32_t> after;
    } cases[] = {{"1.5\n", "zz\n", "3907029168\n", "1\n", 0, {1, 0xbeef, 1907729, 1}},
                 {"", nullptr, "8796093030400\n", "0\n", 1, {12, 0xbeef, 4, 1}}, // 2^32 + 4 MiB
                 {"abc\n", "1\n", nullptr, "0\n", 0, {0, 1, 4242, 0}}};
    for (const auto &c : cases) {
        kt_test::scratch_dir tree;
        const char *names[] = {"speed", "idVendor", "size", "removable"},
                   *texts[] = {c.speed, c.id, c.size, c.removable};
        for (int i = 0; i < 4; ++i)
            ASSERT_TRUE(texts[i] == nullptr || kt_test::write_file(tree / names[i], texts[i]));
        std::tie(disk.speed, disk.id_vendor, part.size_mib, disk.removable) =
            std::make_tuple(12, 0xbeef, 4242u, c.was);
        d = tree.path().c_str();
        ASSERT_TRUE(get_sysusbdata(d, &disk) == 0 && get_sysblockdata(d, &disk, &part) == 0 &&
                    get_sysscsidata(d, &disk) == 0);
        EXPECT_EQ(std::tie(disk.speed, disk.id_vendor, part.size_mib, disk.removable), c.after);
    }
}
