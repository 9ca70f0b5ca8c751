/*
 * Public interface of the Kesto USB accessory bearer, libkestobearer-USBAAP.so.
 *
 * A host loads the shared object, looks up KestoBearerInitialize and from then on
 * talks to the bearer only through the two tables below. Compiles as C and C++.
 *
 * Threads: all slots of one connection are called from one thread, the
 * toolkit's, one call at a time, and never from inside a support function;
 * every support function the bearer calls for that connection is called on
 * that same thread, inside one of those slots.
 * On Linux the event handle is an epoll descriptor and the bearer starts no
 * thread. Elsewhere (QNX, or a build with KESTO_COMPOSITOR=thread) it runs
 * one background thread per established connection, which has every signal
 * blocked, calls nothing of the toolkit's and only makes the event handle
 * readable.
 *
 * Driving a connection: wait until the event handle is readable or the timer
 * asked for with setTimer is due; call connectionGetActivity or
 * connectionTimerExpired accordingly. Whatever connectionTimerExpired takes in
 * leaves the handle readable, so waiting on the handle misses nothing. When
 * connectionGetActivity reports KestoBearerActivityReadable, call
 * connectionRead until it delivers nothing: data already queued does not make
 * the handle readable again. The call that makes the bearer report status 4
 * (connected) may already carry the readable bit. A non-zero result from
 * connectionGetActivity, connectionGetEventHandle or connectionTimerExpired
 * means the connection has failed; once the phone has been found it stays
 * reported on every later call until the toolkit destroys the connection.
 */
#ifndef KESTO_BEARER_H
#define KESTO_BEARER_H

#include <stddef.h>
#include <stdint.h>

#include "kesto/KestoBearerVersion.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes returned by the interface slots. */
enum {
    KestoBearerErrorNone = 0,             /* success */
    KestoBearerErrorInvalidParameter = 8, /* command string lacks or contradicts a required field */
    KestoBearerErrorFailed = 11,          /* any other failure: memory, USB, exception at the boundary */
    KestoBearerErrorCannotOpenDevice = 17,/* the device named by "bus"/"dev" cannot be opened */
    KestoBearerErrorBufferTooSmall = 19   /* connectionRead: the pending block is larger than the buffer */
};

/* Connection status codes passed to setConnectionStatus. */
enum {
    KestoConnectionStatusConnecting = 3, /* establishing has begun */
    KestoConnectionStatusConnected = 4   /* data phase reached; reported once */
};

/* Bits of the activity mask written by connectionGetActivity. */
enum {
    KestoBearerActivityReadable = 1, /* received data waiting; connectionRead delivers it */
    KestoBearerActivityWritable = 2  /* no write in flight; connectionWrite takes data */
};

/* Property numbers for bearerGetProperty. */
enum {
    KestoBearerPropertyName = 0,        /* the name given to KestoBearerInitialize */
    KestoBearerPropertyTitle = 1,       /* "Kesto Android Accessory Protocol bearer" */
    KestoBearerPropertyDescription = 2, /* "Connects to an Android device, acting as an Accessory" */
    KestoBearerPropertyVersion = 3      /* KESTO_BEARER_VERSION, from kesto/KestoBearerVersion.h */
};

/* Property numbers for connectionGetProperty; both answer "USB". */
enum {
    KestoConnectionPropertyTransport = 2,
    KestoConnectionPropertyMedium = 3
};

/* ---- Slots filled by the bearer (KestoBearerInterface), in slot order ---- */

/* Destroys the bearer. Every connection must have been destroyed first. A null bearer does nothing. */
typedef void (*KestoBearerTerminateFn)(void* bearer);
/* Creates a connection for the toolkit's connectionContext; writes its handle to *connectionOut
 * and returns 0, or returns 11 (nothing written). */
typedef int (*KestoBearerCreateConnectionFn)(void* bearer, void* connectionContext, void** connectionOut);
/* Returns a copy of a bearer property made with allocString (the toolkit owns it), or null. */
typedef char* (*KestoBearerGetPropertyFn)(void* bearer, int property);
/* Starts connecting and returns at once: 0 means under way (status 3 has been reported), anything
 * else (8, 11 or 17) failed; after a failure every other slot answers with that code and destroy
 * still frees everything. Called once per connection. */
typedef int (*KestoConnectionEstablishFn)(void* connection);
/* Cancels all USB work, waits for libusb to give every transfer back, stops the connection's thread,
 * closes its event handle and frees the connection. Returns once all of that is done, whatever the
 * phone does meanwhile. A null connection does nothing. */
typedef void (*KestoConnectionDestroyFn)(void* connection);
/* Delivers what remains of the oldest received block, never parts of two. *length: in the capacity,
 * out the bytes delivered. Returns 0 with the bytes (0 bytes when nothing waits); 19 with the
 * block's remaining size when it does not fit (nothing taken: call again with that much room); or,
 * once nothing is left to deliver, the stored error. Bytes delivered are never taken back: a
 * failure found after the copy is reported by the next connectionGetActivity. After a failure in
 * the stream, everything the phone sent before it is still delivered, then the error, and from
 * then on nothing but the error. */
typedef int (*KestoConnectionReadFn)(void* connection, uint8_t* buffer, uint32_t* length);
/* Returns 0 with *length unchanged when all bytes were taken (the bearer keeps its own copy, so the
 * buffer may be reused at once); 0 with *length set to 0 when nothing was taken (a write is in
 * flight, or the connection is not yet connected: retry once connectionGetActivity reports
 * KestoBearerActivityWritable); or an error with *length set to 0. */
typedef int (*KestoConnectionWriteFn)(void* connection, const uint8_t* buffer, uint32_t* length);
/* Writes the descriptor to wait on for readability; *extra (if given) becomes 0. The descriptor
 * belongs to the connection: it stays open, and the same, until connectionDestroy; never read it or
 * close it. Returns the stored error. */
typedef int (*KestoConnectionGetEventHandleFn)(void* connection, int* eventHandle, intptr_t* extra);
/* Processes USB work (completions, the phone's re-enumeration) and writes the activity bits. Returns
 * the stored error, leaving the mask untouched; an error stays reported on every later call. */
typedef int (*KestoConnectionGetActivityFn)(void* connection, uint32_t* activity);
/* Returns a copy of a connection property made with allocString (the toolkit frees it), or null. */
typedef char* (*KestoConnectionGetPropertyFn)(void* connection, int property);
/* Called when the delay last requested through setTimer has passed. Processes USB work like
 * connectionGetActivity. Returns the stored error. */
typedef int (*KestoConnectionTimerExpiredFn)(void* connection);

typedef struct KestoBearerInterface {
    KestoBearerTerminateFn bearerTerminate;
    KestoBearerCreateConnectionFn bearerCreateConnection;
    KestoBearerGetPropertyFn bearerGetProperty;
    KestoConnectionEstablishFn connectionEstablish;
    KestoConnectionDestroyFn connectionDestroy;
    KestoConnectionReadFn connectionRead;
    KestoConnectionWriteFn connectionWrite;
    KestoConnectionGetEventHandleFn connectionGetEventHandle;
    KestoConnectionGetActivityFn connectionGetActivity;
    KestoConnectionGetPropertyFn connectionGetProperty;
    KestoConnectionTimerExpiredFn connectionTimerExpired;
} KestoBearerInterface;

/* ---- Functions supplied by the toolkit (KestoBearerSupportAPI), in slot order ---- */

/* Support functions are called on the connection's thread (bearer-level ones on the thread that
 * called the bearer slot), never from the bearer's background thread. */

/* Returns a writable buffer of size bytes (including the NUL), or null. */
typedef char* (*KestoAllocStringFn)(void* bearerContext, size_t size);
/* Releases a string returned by getConnectionParameter. Never given null. */
typedef void (*KestoFreeStringFn)(void* bearerContext, char* string);
/* Bearer-level log line: NUL-terminated, no added newline. */
typedef void (*KestoBearerLogFn)(void* bearerContext, const char* text);
/* Returns a new string with the command-string field's value, or null when absent. The flag byte
 * and the result word (which may be null) mean what the toolkit says they mean. */
typedef char* (*KestoGetConnectionParameterFn)(void* connectionContext, const char* name,
                                               unsigned char flag, int* result);
/* Reports a connection status (KestoConnectionStatus...). The result is ignored. */
typedef int (*KestoSetConnectionStatusFn)(void* connectionContext, int status);
/* Asks for one connectionTimerExpired after delayMs milliseconds (at least 1). Each request replaces
 * the previous one: the toolkit keeps one timer per connection. The result is ignored. */
typedef int (*KestoSetTimerFn)(void* connectionContext, int delayMs);
/* Reserved by the toolkit for other bearers; they hold their place in the table, which is laid
 * out by position. This bearer never calls them, and a toolkit may leave them null. */
typedef int (*KestoReserved6Fn)(void* connectionContext, intptr_t a, intptr_t b, int* result);
typedef intptr_t (*KestoReserved7Fn)(void* connectionContext, intptr_t a, intptr_t b);
/* Connection-level log line; may be null, and bearerLog is used instead. */
typedef void (*KestoConnectionLogFn)(void* connectionContext, const char* text);

typedef struct KestoBearerSupportAPI {
    KestoAllocStringFn allocString;
    KestoFreeStringFn freeString;
    KestoBearerLogFn bearerLog;
    KestoGetConnectionParameterFn getConnectionParameter;
    KestoSetConnectionStatusFn setConnectionStatus;
    KestoSetTimerFn setTimer;
    KestoReserved6Fn reserved6;
    KestoReserved7Fn reserved7;
    KestoConnectionLogFn connectionLog;
} KestoBearerSupportAPI;

#if defined(__GNUC__)
#define KESTO_BEARER_EXPORT __attribute__((visibility("default")))
#else
#define KESTO_BEARER_EXPORT
#endif

/* Creates the bearer: copies name, fills interfaceTable as far as interfaceSize bytes reach and
 * copies supportTable as far as supportSize bytes reach (missing support slots stay null).
 * Returns the bearer handle, or null when its memory cannot be had. */
KESTO_BEARER_EXPORT void* KestoBearerInitialize(const char* name, void* bearerContext,
                                                KestoBearerInterface* interfaceTable, size_t interfaceSize,
                                                const KestoBearerSupportAPI* supportTable, size_t supportSize);

typedef void* (*KestoBearerInitializeFn)(const char* name, void* bearerContext,
                                         KestoBearerInterface* interfaceTable, size_t interfaceSize,
                                         const KestoBearerSupportAPI* supportTable, size_t supportSize);

#ifdef __cplusplus
}
#endif

#endif /* KESTO_BEARER_H */
