#ifndef KRAND_CORE_SETTINGS_FAULTS_H_
#define KRAND_CORE_SETTINGS_FAULTS_H_

/* For tests of what happens when the store cannot be written. */

#ifdef __cplusplus
extern "C" {
#endif

/* The `writes`-th following write, deletion or commit fails with KRAND_CORE_IO_ERROR and writes
 * nothing; those after it work again. -1 switches off. */
void krand_core_settings_fail_after(int writes);
/* Write transactions that became durable since the process began: one for each write or deletion
 * outside a transaction that changed something, one for each commit that had something to write. */
unsigned long krand_core_settings_write_count(void);

#ifdef __cplusplus
}
#endif

#endif /* KRAND_CORE_SETTINGS_FAULTS_H_ */
