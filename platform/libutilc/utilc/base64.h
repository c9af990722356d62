#ifndef UTILC_BASE64_H_
#define UTILC_BASE64_H_

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Characters that the encoding of `length` bytes takes, without a NUL. */
size_t base64_encode_len(size_t length);
/* Encodes and returns the number of characters written, no NUL among them; 0 when `capacity` is too
 * small. */
size_t base64_encode(const void* data, size_t length, char* text, size_t capacity);
/* Decodes and returns the number of bytes. Strict and canonical: one spelling per value; a wrong
 * alphabet, length, padding or unused bit, or a `capacity` too small, gives 0 bytes. */
size_t base64_decode(const char* text, size_t length, void* data, size_t capacity);

#ifdef __cplusplus
}
#endif

#endif /* UTILC_BASE64_H_ */
