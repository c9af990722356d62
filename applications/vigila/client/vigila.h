#ifndef VIGILA_CLIENT_VIGILA_H_
#define VIGILA_CLIENT_VIGILA_H_

/*
 * The authentication service for callers written in C.
 *
 * Language and library: C89 or later, or C++17 or later. Within one SONAME (libvigila-client.so.1)
 * no function goes away and none changes its parameters or the meaning of its results; new ones may
 * come.
 *
 * Ownership: vigila_open hands a client over, vigila_close ends it; nothing else is to be released.
 * Texts that go in are borrowed for the call, answers are copied into the caller's buffers.
 *
 * Buffers: answers are copied without looking at the buffer's size. A token takes at the most
 * VIGILA_TOKEN_SIZE bytes and a nonce VIGILA_NONCE_SIZE, the closing zero included; an answer that
 * is longer is never accepted from the server.
 *
 * Threads: any thread may call any function with the same client at the same time, except
 * vigila_close, which must be the last call and the only one under way. A thread may be cancelled
 * (pthread_cancel) in a call that waits for the server; on a bus with a broker the cancellation
 * takes effect when the wait is over. Threads may go on calling while the process ends by exit();
 * the client need not be closed before.
 *
 * Cost: any number of clients in a process share one thread, one connection to listen and a few for
 * calls, which are closed when they are not used. The last one closed ends them. Should the program
 * close descriptors that it did not open, they are noticed within a second and opened anew.
 *
 * Processes: a client belongs to the process that opened it. In a child of fork every call answers
 * no at once, with one log line; a client that the child opens works. Either process may close its
 * copy. After exec nothing of the client is left open.
 *
 * Waiting: every function that takes a client, vigila_try_authorize and vigila_try_is_protected
 * excepted, may ask the server, and then waits for its answer up to the bus's deadline (5 seconds
 * unless configured otherwise). A server that is not running is noticed at once.
 *
 * Failures: a truth value is 1 or 0. A null argument where none is allowed, and a length of 0, give
 * 0, and no buffer is touched. An unreachable server gives 0 and empty answers, and the next call
 * tries again.
 *
 * Memory: the four questions that come with every request (vigila_authenticate, vigila_authorize,
 * vigila_is_authenticated, vigila_is_protected) are answered from memory for 1.5 seconds after they
 * were last asked, for as long as the server is known to live and has not taken the answer back.
 * Once a call that ends a session or changes an account or a rule has returned, in whatever process
 * it was made, no grant is given that it ended; on a bus with a broker, once its announcement has
 * arrived.
 *
 * Mode: "cache" lets a logon share a session that the same credentials opened before; every other
 * text opens a session of its own.
 *
 * Tokens: a logon writes the session's token, or, when there is none, "NO_TOKEN" (refused),
 * "DISABLED" (locked after too many wrong passwords), "NODIGEST" (may not use digests), "_EXPIRED"
 * (password or nonce too old) or the empty text (no answer). It writes also when it returns 0.
 */

#ifdef __cplusplus
extern "C" {
#endif

#define VIGILA_TOKEN_SIZE 9
#define VIGILA_NONCE_SIZE 33

typedef struct vigila_client vigila_client;

/* Never null. A server need not be running; a platform configuration that cannot be used ends a
 * process written in C (in C++ it is an exception). */
vigila_client* vigila_open(void);
/* A null client is ignored. */
void vigila_close(vigila_client* client);

/* Name and password are counted bytes of any value, one byte at the least. `token` may be null. */
int vigila_authenticate(vigila_client* client, const char* username, unsigned int username_length,
                        const char* password, unsigned int password_length, const char* mode,
                        char* token);
/* `sess` tells whether the digest algorithm is a session variant. `qop`, `cnonce` and `nc` may be
 * null and are then empty; `token` may be null. */
int vigila_authenticate_http(vigila_client* client, const char* username, const char* nonce,
                             const char* ha2, int sess, const char* qop, const char* cnonce,
                             const char* nc, const char* response, const char* mode, char* token);
/* `token` may be null. */
int vigila_authenticate_wsse(vigila_client* client, const char* username,
                             const char* password_digest, const char* nonce, const char* created,
                             const char* mode, char* token);

/* May the token's session reach the path? A grant restarts the session's idle timer when the server
 * gave it, not when it came from memory: a session that is asked about without a pause may expire,
 * and is then known to have done so only when the server is asked again. */
int vigila_authorize(vigila_client* client, const char* token, const char* path);
/* Does the token stand for a living session? */
int vigila_is_authenticated(vigila_client* client, const char* token);
/* Does the path ask for a logon at all? 0 also when the server did not answer: ask
 * vigila_authorize, which then refuses, before handing anything out. */
int vigila_is_protected(vigila_client* client, const char* path);
/* The same two questions for callers that must not wait, such as servers with an event loop:
 * answered from memory, at the cost of a look-up, or with VIGILA_WOULD_HAVE_TO_ASK. Then a thread
 * that may wait asks vigila_authorize or vigila_is_protected; memory holds the answer afterwards
 * unless it was a refusal to authorize. A null argument gives VIGILA_WOULD_HAVE_TO_ASK, too. */
#define VIGILA_WOULD_HAVE_TO_ASK (-1)
int vigila_try_authorize(vigila_client* client, const char* token, const char* path);
int vigila_try_is_protected(vigila_client* client, const char* path);

/* 1 also when the server did not answer: the nonce is then the empty text. */
int vigila_get_nonce(vigila_client* client, char* nonce);

#ifdef __cplusplus
}
#endif

#endif /* VIGILA_CLIENT_VIGILA_H_ */
