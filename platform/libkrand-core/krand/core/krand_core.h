#ifndef KRAND_CORE_KRAND_CORE_H_
#define KRAND_CORE_KRAND_CORE_H_

#include <stdarg.h>
#include <stddef.h>

/* The platform core in C linkage. Every function may be called from any thread once
 * krand_core_init, krand_core_settings_init and krand_core_logging_init have run on one thread.
 * Texts and arrays that a function hands out are malloc'd and belong to the caller. */

#ifdef __cplusplus
extern "C" {
/* Other numbers than the named ones may come through, as they may in C. */
#define KRAND_CORE_ANY_INT : int
#else
#define KRAND_CORE_ANY_INT
#endif

typedef enum krand_core_status KRAND_CORE_ANY_INT {
  KRAND_CORE_OK = 0,
  KRAND_CORE_ERROR = 1,
  KRAND_CORE_INVALID_ARGUMENT = 2,
  KRAND_CORE_NOT_INITIALIZED = 3,
  KRAND_CORE_NO_MEMORY = 4,
  KRAND_CORE_IO_ERROR = 5,   /* the store could not be read or written */
  KRAND_CORE_WRONG_TYPE = 6, /* the key holds a value of another type */
  KRAND_CORE_UNAVAILABLE = 7 /* the asked service is not there */
} krand_core_status;

/* syslog's numbers */
typedef enum krand_core_log_priority KRAND_CORE_ANY_INT {
  KRAND_CORE_LOG_ERROR = 3,
  KRAND_CORE_LOG_WARNING = 4,
  KRAND_CORE_LOG_NOTICE = 5,
  KRAND_CORE_LOG_INFO = 6,
  KRAND_CORE_LOG_DEBUG = 7
} krand_core_log_priority;

typedef unsigned long krand_core_ipc_handle; /* 0: none */

krand_core_status krand_core_init(void);
krand_core_status krand_core_deinit(void);

/* Every init, deinit, begin and commit call reports its name here, for tests of their order. */
typedef void (*krand_core_trace_hook)(const char* call, void* data);
void krand_core_set_trace_hook(krand_core_trace_hook hook, void* data);
/* Reports a call of a sibling platform library to the hook. */
void krand_core_trace(const char* call);

krand_core_status krand_core_logging_init(const char* identity, void** context);
krand_core_status krand_core_logging_deinit(void* context);
void krand_core_logging_log(void* context, krand_core_log_priority priority, const char* format,
                            ...) __attribute__((format(printf, 3, 4)));
void krand_core_logging_logv(void* context, krand_core_log_priority priority, const char* format,
                             va_list arguments) __attribute__((format(printf, 3, 0)));

krand_core_status krand_core_ipc_initiator_init(void* context, int flags,
                                                krand_core_ipc_handle* handle);
krand_core_status krand_core_ipc_deinit(krand_core_ipc_handle handle);

/* Settings: typed values under keys, one store per domain, one open domain per process. Keys are
 * NUL-terminated and may hold any other bytes; values are not looked into. A write replaces a value
 * of any type and is on the disk when the call returns. An error is never "no such key": a missing
 * key is KRAND_CORE_OK with a null value. Outputs stay untouched on errors. What is read matches
 * its checksum.
 *
 * A null argument is KRAND_CORE_INVALID_ARGUMENT, a call without an open domain
 * KRAND_CORE_NOT_INITIALIZED, a second settings_init KRAND_CORE_ERROR. A store that is damaged,
 * lost, older than it was, not a settings store, of a newer format, not writable, or writable by
 * others fails settings_init with KRAND_CORE_IO_ERROR and an Error log line; nothing is ever made
 * anew over it. A child after fork has no open domain, and cannot open one if its parent had. */
krand_core_status krand_core_settings_init(const char* domain);
krand_core_status krand_core_settings_deinit(void);
/* 1 the domain has a store or something is left of one, 0 there was never one, -1 not a domain. */
int krand_core_settings_exist(const char* domain);
/* For messages: the file behind the open domain, or the one that the last settings_init could not
 * open; the empty text otherwise. Valid until the next settings_init or settings_deinit. */
const char* krand_core_settings_location(void);

/* Keys with the prefix in byte order, null-terminated; free with krand_core_free_string_array. Null
 * means that the store could not be read. */
char** krand_core_settings_get_keys_starting_with(const char* prefix);
krand_core_status krand_core_settings_get_json_value(const char* key, char** text);
krand_core_status krand_core_settings_set_json_value(const char* key, const char* text);
krand_core_status krand_core_settings_get_string_value(const char* key, char** text);
krand_core_status krand_core_settings_set_string_value(const char* key, const char* text);
/* `array` is null-terminated; `count` (may be null) does not count the terminator. */
krand_core_status krand_core_settings_get_arrayofstring_value(const char* key, char*** array,
                                                              size_t* count);
krand_core_status krand_core_settings_set_arrayofstring_value(const char* key, char* const* array);
/* 1 the key exists (with a value of any type), 0 it does not, -1 the store could not be read. */
int krand_core_settings_does_key_exist(const char* key);
/* Deleting a key that is not there succeeds. */
krand_core_status krand_core_settings_delete_key(const char* key);
/* Everything that this thread writes between begin and commit becomes durable together, or not at
 * all; other threads' reads and writes wait. Transactions do not nest: a begin inside one, like a
 * commit or rollback outside, is KRAND_CORE_ERROR. After a write that failed, commit fails too. A
 * commit that fails has rolled back and ended the transaction. */
krand_core_status krand_core_settings_begin(void);
krand_core_status krand_core_settings_commit(void);
krand_core_status krand_core_settings_rollback(void);
/* A change is settled within a second after it was written: from then on damage to the log beside
 * the store cannot undo it, and an older store in its place is refused. This waits until everything
 * written before is settled. Inside a transaction it is KRAND_CORE_ERROR; after a failure it is
 * tried again by itself. */
krand_core_status krand_core_settings_settle(void);
/* One mark for the layer above, for something that its store, once it has it, never loses. It is
 * set for good, like a value. */
krand_core_status krand_core_settings_set_mark(void);
/* 1 it is set, 0 it is not, -1 the store could not be read. */
int krand_core_settings_has_mark(void);

/* An array of `count` null slots and a terminator; slots take malloc'd texts. Null: no memory. */
char** krand_core_alloc_string_array(size_t count);
void krand_core_free_string_array(char** array);

#ifdef __cplusplus
}
#endif

#endif /* KRAND_CORE_KRAND_CORE_H_ */
