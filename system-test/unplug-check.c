/*
 * A toolkit whose phone loses its cable mid-stream: loads the plug-in, connects
 * to the phone at BUS ADDRESS, streams data through its echo, sends SIGUSR1 to
 * the phone's process (which pulls the cable) once 1 MiB has come back, and
 * then checks what the toolkit is owed: an error within a few seconds, the same
 * error on every later call, and a destroy that returns promptly.
 *
 *   unplug-check PLUGIN BUS ADDRESS PHONE_PID
 */
#define _POSIX_C_SOURCE 200809L
#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <time.h>

#include "kesto/KestoBearer.h"

enum {
    kPullAfterBytes = 1 << 20,
    kLargestWrite = 16384,
    kConnectMs = 20000,
    kErrorWithinMs = 5000,  /* a pending transfer ends at once; later calls find no device */
    kStaysForMs = 300,      /* how long later calls are watched for the same error */
    kDestroyWithinMs = 1000,
    kLongestWaitMs = 20
};

static const char* busNumber;
static const char* deviceAddress;
static int connected;
static long long timerDueMs = -1;

static long long NowMs(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

static char* AllocString(void* bearerContext, size_t size) { (void)bearerContext; return malloc(size); }
static void FreeString(void* bearerContext, char* text) { (void)bearerContext; free(text); }
static void Log(void* bearerContext, const char* text) { (void)bearerContext; fprintf(stderr, "bearer: %s\n", text); }
static void ConnectionLog(void* connectionContext, const char* text) {
    (void)connectionContext;
    fprintf(stderr, "connection: %s\n", text);
}
static char* GetParameter(void* connectionContext, const char* name, unsigned char flag, int* result) {
    const char* value = strcmp(name, "bus") == 0 ? busNumber : strcmp(name, "dev") == 0 ? deviceAddress : NULL;
    char* copy = value != NULL ? malloc(strlen(value) + 1) : NULL;
    (void)connectionContext, (void)flag, (void)result;
    return copy != NULL ? strcpy(copy, value) : NULL;
}
static int SetStatus(void* connectionContext, int status) {
    (void)connectionContext;
    connected |= status == KestoConnectionStatusConnected;
    return 0;
}
static int SetTimer(void* connectionContext, int delayMs) {
    (void)connectionContext;
    timerDueMs = NowMs() + delayMs;
    return 0;
}

/* One turn of the toolkit's loop: wait, then let the plug-in work if it asked to. Returns the
 * first failing result. GetActivity only on readiness or after the timer: every call made while
 * the phone is being looked for asks for the search timer anew. */
static int Turn(KestoBearerInterface* table, void* connection, uint32_t* activity) {
    struct pollfd ready = {-1, POLLIN, 0};
    long long waitMs = timerDueMs < 0 ? kLongestWaitMs : timerDueMs - NowMs();
    int rc = table->connectionGetEventHandle(connection, &ready.fd, NULL);
    if (rc != 0) return rc;
    if (poll(&ready, 1, waitMs < 0 ? 0 : waitMs > kLongestWaitMs ? kLongestWaitMs : (int)waitMs) > 0)
        return table->connectionGetActivity(connection, activity);
    if (timerDueMs >= 0 && NowMs() >= timerDueMs) {
        timerDueMs = -1;
        if ((rc = table->connectionTimerExpired(connection)) != 0) return rc;
        return table->connectionGetActivity(connection, activity);
    }
    return 0;
}

/* Streams until a call fails; returns its result and names the call. */
static int Stream(KestoBearerInterface* table, void* connection, pid_t phone, long long* pulledAtMs, const char** call) {
    static uint8_t out[kLargestWrite], in[kLargestWrite];
    unsigned long long received = 0;
    long long giveUpMs = NowMs() + kConnectMs;
    int rc;
    memset(out, 0x5A, sizeof out);
    for (;;) {
        uint32_t activity = 0, length;
        *call = "the loop (event handle, timer, activity)";
        if ((rc = Turn(table, connection, &activity)) != 0) return rc;
        if (connected && (activity & KestoBearerActivityWritable)) {
            length = sizeof out;
            *call = "connectionWrite";
            if ((rc = table->connectionWrite(connection, out, &length)) != 0) return rc;
        }
        while (activity & KestoBearerActivityReadable) {
            length = sizeof in;
            *call = "connectionRead";
            if ((rc = table->connectionRead(connection, in, &length)) != 0) return rc;
            if (length == 0) break;
            received += length;
        }
        if (*pulledAtMs < 0 && received >= kPullAfterBytes) {
            kill(phone, SIGUSR1);
            *pulledAtMs = NowMs();
            fprintf(stderr, "unplug-check: cable pulled after %llu bytes back\n", received);
        }
        if (*pulledAtMs < 0 ? NowMs() > giveUpMs : NowMs() - *pulledAtMs > kErrorWithinMs) {
            *call = *pulledAtMs < 0 ? "nothing: no echo in time" : "nothing: no error in time";
            return 0;
        }
    }
}

/* A failed read or write is that call's answer; the connection's own failure is what the loop's
 * calls report. Waits for it as a toolkit would, on the event handle and the timer. */
static int LoopReports(KestoBearerInterface* table, void* connection, long long untilMs) {
    int rc = 0;
    while (rc == 0 && NowMs() < untilMs) {
        uint32_t activity = 0;
        rc = Turn(table, connection, &activity);
    }
    return rc;
}

/* Every later call must answer the stored error. */
static int ErrorStays(KestoBearerInterface* table, void* connection, int error) {
    long long endMs = NowMs() + kStaysForMs;
    int calls = 0, fd;
    while (NowMs() < endMs) {
        uint32_t activity = 0;
        int a = table->connectionGetActivity(connection, &activity);
        int h = table->connectionGetEventHandle(connection, &fd, NULL);
        if (a != error || h != error) {
            fprintf(stderr, "unplug-check: after %d calls, connectionGetActivity gave %d and connectionGetEventHandle %d, "
                            "not the error %d\n", calls, a, h, error);
            return 0;
        }
        calls += 2;
        nanosleep(&(struct timespec){0, 10 * 1000 * 1000}, NULL);
    }
    return calls;
}

/* What each call answers once the loop has stayed quiet: for the report only. */
static void Probe(KestoBearerInterface* table, void* connection, char* text, size_t size) {
    static uint8_t bytes[1 << 16];
    uint32_t length = kLargestWrite, activity = 0, read = 0;
    int w = table->connectionWrite(connection, bytes, &length), r = 0;
    int a = table->connectionGetActivity(connection, &activity);
    while (r == 0) {
        length = sizeof bytes;
        r = table->connectionRead(connection, bytes, &length);
        if (r == 0 && length == 0) break;
        read += length;
    }
    snprintf(text, size, "connectionWrite %d, connectionGetActivity %d, connectionRead %d after %u bytes, "
             "connectionGetActivity %d", w, a, r, read, table->connectionGetActivity(connection, &activity));
}

int main(int argc, char** argv) {
    KestoBearerSupportAPI support = {AllocString, FreeString, Log, GetParameter, SetStatus, SetTimer, NULL, NULL,
                                     ConnectionLog};
    KestoBearerInterface table;
    KestoBearerInitializeFn initialize;
    void *library, *symbol, *bearer, *connection = NULL;
    long long pulledAtMs = -1, errorAtMs, loopErrorAtMs, destroyMs;
    const char* call = "connectionEstablish";
    int rc = KestoBearerErrorFailed, loopError = 0, stays = 0;
    char later[200] = "";

    if (argc != 5) {
        fprintf(stderr, "usage: %s PLUGIN BUS ADDRESS PHONE_PID\n", argv[0]);
        return 2;
    }
    busNumber = argv[2], deviceAddress = argv[3];
    library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == NULL || (symbol = dlsym(library, "KestoBearerInitialize")) == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    memcpy(&initialize, &symbol, sizeof initialize);
    if ((bearer = initialize("USBAAP", NULL, &table, sizeof table, &support, sizeof support)) == NULL) return 1;
    if (table.bearerCreateConnection(bearer, NULL, &connection) == 0) rc = table.connectionEstablish(connection);
    if (rc == 0) rc = Stream(&table, connection, (pid_t)atoi(argv[4]), &pulledAtMs, &call);
    errorAtMs = NowMs();
    if (rc != 0 && pulledAtMs >= 0) {
        int fromLoop = strcmp(call, "connectionRead") != 0 && strcmp(call, "connectionWrite") != 0;
        loopError = fromLoop ? rc : LoopReports(&table, connection, pulledAtMs + kErrorWithinMs);
        loopErrorAtMs = NowMs();
        stays = loopError != 0 ? ErrorStays(&table, connection, loopError) : 0;
        if (loopError == 0) Probe(&table, connection, later, sizeof later);
    }
    destroyMs = NowMs();
    table.connectionDestroy(connection);
    table.bearerTerminate(bearer);
    destroyMs = NowMs() - destroyMs;
    dlclose(library);

    if (pulledAtMs < 0 || rc == 0) {
        printf("no error reported (%s); last result %d\n", call, rc);
        return 1;
    }
    printf("error %d from %s %lld ms after the pull; ", rc, call, errorAtMs - pulledAtMs);
    if (loopError == 0)
        printf("the loop's calls reported none within %d ms (then: %s)", kErrorWithinMs, later);
    else
        printf("the loop's calls reported %d at %lld ms, the same on %d later calls", loopError,
               loopErrorAtMs - pulledAtMs, stays);
    printf("; destroy took %lld ms\n", destroyMs);
    return stays > 0 && destroyMs <= kDestroyWithinMs ? 0 : 1;
}
