/* ktutf8: structural UTF-8 checks for volume labels and cutting them without splitting a character.
 */
#ifndef KTUTF8_H
#define KTUTF8_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 1 when the NUL-terminated `text` is structurally UTF-8 (lead and continuation bytes only;
 * overlong forms and surrogates pass), else 0; 0 for null. */
int kt_is_utf8(const char *text);

/* Length of the longest prefix of whole characters that fits in `limit` bytes with its
 * terminator (at most limit - 1); 0 for a malformed text or a limit below 1; -1 for null.
 * Meant for text that kt_is_utf8 accepted. */
int32_t kt_round_utf8(const char *text, int32_t limit);

#ifdef __cplusplus
}
#endif

#endif
