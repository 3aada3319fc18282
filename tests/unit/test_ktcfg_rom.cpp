// Tests of the ROM store: archiving and unpacking with tar, the driver requests and their numbers.
#include "config/ktcfg_rom.h"
#include "tests/helpers/scratch.h"

using namespace kt_test;

// Request numbers in the MIPS encoding (top bits: none 1, read 2, write 4); elsewhere generic.
constexpr unsigned long built(uint32_t mips) {
#if defined(__mips__)
    return mips;
#else
    return ((mips >> 31) | (mips >> 29 & 2)) << 30 | (mips & 0x1fffffff);
#endif
}
static_assert(KT_CFG_ROM_IOC_0 == built(0x20006700) && KT_CFG_ROM_IOC_1 == built(0x20006701) &&
              KT_CFG_ROM_IOC_2 == built(0x80046702) && KT_CFG_ROM_IOC_3 == built(0x40046703) &&
              KT_CFG_ROM_IOC_4 == built(0x80046704) && KT_CFG_ROM_IOC_5 == built(0x40046705) &&
              KT_CFG_ROM_IOC_6 == built(0x80046706) && KT_CFG_ROM_IOC_7 == built(0x40046707) &&
              KT_CFG_ROM_IOC_8 == built(0x80046708) && KT_CFG_ROM_IOC_9 == built(0x40046709) &&
              KT_CFG_ROM_IOC_10 == built(0x4004670a) && KT_CFG_ROM_IOC_12 == built(0x8004670c) &&
              KT_CFG_ROM_IOC_13 == built(0x4004670d) && KT_CFG_ROM_IOC_14 == built(0x8004670e) &&
              KT_CFG_ROM_IOC_15 == built(0x4004670f) && KT_CFG_ROM_IOC_16 == built(0x80046710) &&
              KT_CFG_ROM_IOC_17 == built(0x40046711) && KT_CFG_ROM_IOC_18 == built(0x80046712) &&
              KT_CFG_ROM_IOC_19 == built(0x40046713));

char buf[32];

// Every wrapper (senders first), fields `o` bytes out of bounds: "." -1, "E" -EINVAL, "D" -EISDIR.
std::string call_all(const char *n, size_t o = 0, char *d = buf) {
    std::string letters;
    for (int r : {kt_cfg_flushcache(n), kt_cfg_rom_ioctl_1(n), kt_cfg_rom_ioctl_2(n, d),
                  kt_cfg_rom_ioctl_4(n, d, 16 + o), kt_cfg_rom_ioctl_6(n, d, 16 + o),
                  kt_cfg_rom_ioctl_8(n, d, 16 + o), kt_cfg_rom_ioctl_16(n, d, 32 + o),
                  kt_cfg_rom_ioctl_12(n, 7), kt_cfg_rom_ioctl_14(n, 7), kt_cfg_rom_ioctl_18(n, 7),
                  kt_cfg_rom_ioctl_3(n, d), kt_cfg_rom_ioctl_10(n, d), kt_cfg_rom_ioctl_15(n, d),
                  kt_cfg_rom_ioctl_5(n, d, 16 - o), kt_cfg_rom_ioctl_7(n, d, 16 - o),
                  kt_cfg_rom_ioctl_9(n, d, 16 - o), kt_cfg_rom_ioctl_17(n, d, 32 - o),
                  kt_cfg_rom_ioctl_13(n), kt_cfg_rom_ioctl_19(n)})
        letters += r == -1 ? '.' : r == -EINVAL ? 'E' : r == -EISDIR ? 'D' : '?';
    return letters;
}

// /dev/null refuses every request; a directory opens only to fetch; bad arguments reach no node.
TEST(RomRequests, OpenModesAndArgumentChecks) {
    EXPECT_EQ(call_all("/dev/null"), "...................");
    EXPECT_EQ(call_all("/", 1), "DDDEEEEDDD...EEEE..");
    EXPECT_EQ(call_all(nullptr), "EEEEEEEEEEEEEEEEEEE");
    EXPECT_EQ(call_all("/dev/null", 0, nullptr), "..EEEEE...EEEEEEE..");
}

// The archive holds the directory's visible entries, written from the first byte of the ROM.
TEST(RomStore, RoundTripCutCommandAndFailures) {
    scratch_dir dir;
    const std::string src = dir / "conf", rom = dir / "rom", out = dir / "out";
    const char *s = src.c_str(), *r = rom.c_str();
    ASSERT_TRUE(run("cd " + dir.path() +
                    " && mkdir -p conf/sub out && echo 1 >conf/a && echo 2 >conf/sub/b && "
                    "echo 3 >conf/.c && head -c 99999 /dev/zero >rom"));
    ASSERT_TRUE(kt_cfg_rom_store(r, s) == 0 && kt_cfg_rom_load(r, out.c_str()) == 0);
    EXPECT_EQ(read_file(out + "/a") + read_file(out + "/sub/b") + read_file(out + "/.c"), "1\n2\n");
    // "/bin/tar cf ROM *" is cut at 63 characters: a ROM path of 50 loses the "*" (no archive).
    ASSERT_LT(dir.path().size(), 40u) << "scratch directory too deep for this test";
    const std::string fits = dir.path() + "/" + std::string(48 - dir.path().size(), 'r');
    EXPECT_TRUE(kt_cfg_rom_store("/dev/null", s) == 0 && kt_cfg_rom_store(fits.c_str(), s) == 0);
    EXPECT_TRUE(kt_cfg_rom_store((fits + "r").c_str(), s) == -1 &&
                kt_cfg_rom_store(r, (dir / "missing").c_str()) == -1 &&
                kt_cfg_rom_load((fits + "r").c_str(), out.c_str()) == -1 &&
                kt_cfg_rom_store(nullptr, s) == -EINVAL && kt_cfg_rom_load(r, nullptr) == -EINVAL);
}
