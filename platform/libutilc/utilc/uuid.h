#ifndef UTILC_UUID_H_
#define UTILC_UUID_H_

#include <stddef.h>

/* 16 bytes in the order in which they are written. */
typedef struct _uuid_t {
  unsigned char bytes[16];
} _uuid_t;

#ifdef __cplusplus
extern "C" {
#endif

/* Makes a random (version 4) identifier. Ends the process when the kernel has no randomness. */
void uuid_create(_uuid_t* uuid);
/* Reads 36 characters, braced or plain, of either case; nothing may follow. 0 on success, -1 with
 * `uuid` untouched otherwise. */
int uuid_scan(const char* text, _uuid_t* uuid);
/* Byte order: negative, zero or positive, as memcmp. */
int uuid_compare(const _uuid_t* left, const _uuid_t* right);
/* Writes 36 lower-case characters and a NUL into `text`, without braces. */
void uuid_sprint(const _uuid_t* uuid, char text[37]);
/* Writes the 16 bytes through a printf format with 16 "%hhx"-like conversions; as snprintf. */
int uuid_sprintf(const _uuid_t* uuid, const char* format, char* text, size_t size);

#ifdef __cplusplus
}

inline bool operator<(const _uuid_t& left, const _uuid_t& right) {
  return uuid_compare(&left, &right) < 0;
}
inline bool operator==(const _uuid_t& left, const _uuid_t& right) {
  return uuid_compare(&left, &right) == 0;
}
#endif

#endif /* UTILC_UUID_H_ */
