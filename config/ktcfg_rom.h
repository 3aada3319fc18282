/* ktcfg_rom: the configuration ROM: archiving a directory onto it, unpacking it, driver requests.
 */
#ifndef KTCFG_ROM_H
#define KTCFG_ROM_H

#include <stddef.h>
#include <sys/ioctl.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes a tar archive of the visible entries of `dir` (paths relative to it) from the first
 * byte of `rom`, the ROM device node or any archive file, through "/bin/sh -c" "/bin/tar cf
 * ROM *"; a ROM path longer than 49 characters is cut and the store then fails. 0; -1 when the
 * archiver fails or `dir` cannot be entered; minus errno when fork fails; -EINVAL for null.
 * Waits for any child: the caller must have no other child running meanwhile. */
int kt_cfg_rom_store(const char *rom, const char *dir);

/* Unpacks the archive in `rom` into `dir` with "/bin/tar xf"; results as kt_cfg_rom_store. */
int kt_cfg_rom_load(const char *rom, const char *dir);

/*
 * Requests of the ROM device's driver, type 'g'. The numbers, directions and argument sizes
 * are fixed by the driver and built with the system's macros, so a MIPS build carries the MIPS
 * encoding (KT_CFG_ROM_IOC_0 is 0x20006700 there); what each request does is the driver's
 * business. Number 11 does not exist.
 */
#define KT_CFG_ROM_IOC_0 _IO('g', 0)
#define KT_CFG_ROM_IOC_1 _IO('g', 1)
#define KT_CFG_ROM_IOC_2 _IOW('g', 2, int)
#define KT_CFG_ROM_IOC_3 _IOR('g', 3, int)
#define KT_CFG_ROM_IOC_4 _IOW('g', 4, int)
#define KT_CFG_ROM_IOC_5 _IOR('g', 5, int)
#define KT_CFG_ROM_IOC_6 _IOW('g', 6, int)
#define KT_CFG_ROM_IOC_7 _IOR('g', 7, int)
#define KT_CFG_ROM_IOC_8 _IOW('g', 8, int)
#define KT_CFG_ROM_IOC_9 _IOR('g', 9, int)
#define KT_CFG_ROM_IOC_10 _IOR('g', 10, int)
#define KT_CFG_ROM_IOC_12 _IOW('g', 12, int)
#define KT_CFG_ROM_IOC_13 _IOR('g', 13, int)
#define KT_CFG_ROM_IOC_14 _IOW('g', 14, int)
#define KT_CFG_ROM_IOC_15 _IOR('g', 15, int)
#define KT_CFG_ROM_IOC_16 _IOW('g', 16, int)
#define KT_CFG_ROM_IOC_17 _IOR('g', 17, int)
#define KT_CFG_ROM_IOC_18 _IOW('g', 18, int)
#define KT_CFG_ROM_IOC_19 _IOR('g', 19, int)

/*
 * Each wrapper opens `rom` (write-only for requests 0 and 1 and those that hand data to the
 * driver, read-only for those that fetch data), issues its one request, closes the node and
 * returns the ioctl's result (-1 when the driver refuses); minus errno when the node cannot
 * be opened; -EINVAL for a null pointer or a length outside the request's bound, checked
 * before the node is opened.
 */

/* Request 0 with argument 0: the driver writes its cache out to the ROM. */
int kt_cfg_flushcache(const char *rom);

/* Request 1, argument 0. */
int kt_cfg_rom_ioctl_1(const char *rom);

/* Requests handing `arg` to the driver as it is: 2 (write); 3, 10, 15 (read into `arg`). */
int kt_cfg_rom_ioctl_2(const char *rom, const void *arg);
int kt_cfg_rom_ioctl_3(const char *rom, void *arg);
int kt_cfg_rom_ioctl_10(const char *rom, void *arg);
int kt_cfg_rom_ioctl_15(const char *rom, void *arg);

/* Writes of a field of `length` bytes: at most 16 for 4, 6, 8; at most 32 for 16. */
int kt_cfg_rom_ioctl_4(const char *rom, const void *data, size_t length);
int kt_cfg_rom_ioctl_6(const char *rom, const void *data, size_t length);
int kt_cfg_rom_ioctl_8(const char *rom, const void *data, size_t length);
int kt_cfg_rom_ioctl_16(const char *rom, const void *data, size_t length);

/* Reads into `buffer` of `size` bytes: at least 16 for 5, 7, 9; at least 32 for 17. */
int kt_cfg_rom_ioctl_5(const char *rom, void *buffer, size_t size);
int kt_cfg_rom_ioctl_7(const char *rom, void *buffer, size_t size);
int kt_cfg_rom_ioctl_9(const char *rom, void *buffer, size_t size);
int kt_cfg_rom_ioctl_17(const char *rom, void *buffer, size_t size);

/* Writes of one integer (passed by the address of a copy): 12, 14, 18. */
int kt_cfg_rom_ioctl_12(const char *rom, int value);
int kt_cfg_rom_ioctl_14(const char *rom, int value);
int kt_cfg_rom_ioctl_18(const char *rom, int value);

/* Reads of one integer: 13, 19. The integer, or the negative ioctl result or minus errno. */
int kt_cfg_rom_ioctl_13(const char *rom);
int kt_cfg_rom_ioctl_19(const char *rom);

#ifdef __cplusplus
}
#endif

#endif
