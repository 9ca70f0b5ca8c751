/*
 * The smallest toolkit host: loads the bearer plug-in, connects to the phone at
 * a USB bus number and device address, sends 64 KiB and waits for the phone's
 * echo application to send them back. Needs only kesto/KestoBearer.h.
 *
 *   kesto-echo-host /usr/lib/libkestobearer-USBAAP.so BUS ADDRESS
 */
#define _POSIX_C_SOURCE 200809L
#include <dlfcn.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kesto/KestoBearer.h"

enum { kBytes = 65536, kLargestWrite = 16384, kGiveUpMs = 10000, kLongestWaitMs = 100 };

static const char* busNumber;
static const char* deviceAddress;
static int connected;
static long long timerDueMs = -1; /* the one timer the bearer may ask for; -1: none */

static long long NowMs(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

/* ---- The support table: what the bearer may call, always on this thread ---- */
static char* AllocString(void* bearerContext, size_t size) { (void)bearerContext; return malloc(size); }
static void FreeString(void* bearerContext, char* text) { (void)bearerContext; free(text); }
static void Log(void* bearerContext, const char* text) { (void)bearerContext; fprintf(stderr, "bearer: %s\n", text); }

/* The connection's command string: only the device's place on the bus. */
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

int main(int argc, char** argv) {
    static uint8_t sent[kBytes], echoed[kBytes];
    KestoBearerSupportAPI support = {AllocString, FreeString, Log, GetParameter, SetStatus, SetTimer, NULL, NULL, NULL};
    KestoBearerInterface table;
    KestoBearerInitializeFn initialize;
    void *library, *symbol, *bearer, *connection = NULL;
    uint32_t written = 0, received = 0, i;
    long long giveUpMs = NowMs() + kGiveUpMs;
    char* version;
    int rc = KestoBearerErrorFailed;

    if (argc != 4) {
        fprintf(stderr, "usage: %s PLUGIN BUS ADDRESS\n", argv[0]);
        return 2;
    }
    busNumber = argv[2], deviceAddress = argv[3];
    for (i = 0; i < kBytes; i++) sent[i] = (uint8_t)(i * 7 % 251);
    library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == NULL || (symbol = dlsym(library, "KestoBearerInitialize")) == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    memcpy(&initialize, &symbol, sizeof initialize); /* ISO C converts no object pointer to a function pointer */
    if ((bearer = initialize("USBAAP", NULL, &table, sizeof table, &support, sizeof support)) == NULL) return 1;
    if ((version = table.bearerGetProperty(bearer, KestoBearerPropertyVersion)) != NULL) {
        printf("plug-in %s, header %s\n", version, KESTO_BEARER_VERSION);
        free(version);
    }
    if (table.bearerCreateConnection(bearer, NULL, &connection) == 0) rc = table.connectionEstablish(connection);

    while (rc == 0 && received < kBytes) {
        struct pollfd ready = {-1, POLLIN, 0};
        long long waitMs = timerDueMs < 0 ? kLongestWaitMs : timerDueMs - NowMs();
        uint32_t activity = 0, length;
        if ((rc = table.connectionGetEventHandle(connection, &ready.fd, NULL)) != 0) break;
        poll(&ready, 1, waitMs < 0 ? 0 : waitMs > kLongestWaitMs ? kLongestWaitMs : (int)waitMs);
        if (timerDueMs >= 0 && NowMs() >= timerDueMs) {
            timerDueMs = -1;
            if ((rc = table.connectionTimerExpired(connection)) != 0) break;
        }
        if ((rc = table.connectionGetActivity(connection, &activity)) != 0) break;
        if (connected && written < kBytes && (activity & KestoBearerActivityWritable)) {
            length = kBytes - written < kLargestWrite ? kBytes - written : kLargestWrite;
            rc = table.connectionWrite(connection, sent + written, &length);
            written += length; /* 0 when a write is still in flight */
        }
        /* Queued data does not make the handle readable again: read until nothing comes. */
        while (rc == 0 && (activity & KestoBearerActivityReadable) && received < kBytes) {
            length = kBytes - received;
            if ((rc = table.connectionRead(connection, echoed + received, &length)) != 0 || length == 0) break;
            received += length;
        }
        if (NowMs() > giveUpMs) {
            fprintf(stderr, "no echo after %d ms: %s\n", kGiveUpMs, connected ? "connected" : "not connected");
            rc = KestoBearerErrorFailed;
        }
    }
    if (rc != 0) fprintf(stderr, "connection failed with result %d\n", rc);
    else if (memcmp(sent, echoed, kBytes) != 0) rc = KestoBearerErrorFailed, fprintf(stderr, "the echo differs\n");
    else printf("echo: %u bytes sent and received intact\n", (unsigned)received);
    table.connectionDestroy(connection);
    table.bearerTerminate(bearer);
    dlclose(library);
    return rc == 0 ? 0 : 1;
}
