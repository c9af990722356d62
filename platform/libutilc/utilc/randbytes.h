#ifndef UTILC_RANDBYTES_H_
#define UTILC_RANDBYTES_H_

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Fills `data` with random bytes from the kernel (getrandom). Ends the process when it has none. */
void randbytes(void* data, size_t length);

#ifdef __cplusplus
}
#endif

#endif /* UTILC_RANDBYTES_H_ */
