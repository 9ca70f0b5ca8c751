/* A toolkit's first step with the installed plug-in: load it from the path its
 * build was given, and check that it is the version the header describes. */
#define _POSIX_C_SOURCE 200809L
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <kesto/KestoBearer.h>

static char* AllocString(void* bearerContext, size_t size) {
    (void)bearerContext;
    return malloc(size);
}

int main(void) {
    KestoBearerSupportAPI support;
    KestoBearerInterface table;
    KestoBearerInitializeFn initialize;
    void *library, *symbol, *bearer;
    char* version;
    int same;

    memset(&support, 0, sizeof support);
    support.allocString = AllocString;
    library = dlopen(KESTO_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL || (symbol = dlsym(library, "KestoBearerInitialize")) == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    memcpy(&initialize, &symbol, sizeof initialize);
    bearer = initialize("USBAAP", NULL, &table, sizeof table, &support, sizeof support);
    if (bearer == NULL) {
        return 1;
    }
    version = table.bearerGetProperty(bearer, KestoBearerPropertyVersion);
    same = version != NULL && strcmp(version, KESTO_BEARER_VERSION) == 0;
    printf("%s: plug-in %s, header %s\n", KESTO_PLUGIN, version != NULL ? version : "(none)", KESTO_BEARER_VERSION);
    free(version);
    table.bearerTerminate(bearer);
    dlclose(library);
    return same ? 0 : 1;
}
