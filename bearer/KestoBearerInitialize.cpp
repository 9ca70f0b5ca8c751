#include <new>

#include "bearer/KestoBearerAAP.h"
#include "kesto/KestoBearer.h"

// The one exported symbol. No fence: a failed allocation answers null, and an
// exception from the name copy frees the memory and propagates.
extern "C" KESTO_BEARER_EXPORT void* KestoBearerInitialize(const char* name, void* bearerContext,
                                                           KestoBearerInterface* interfaceTable,
                                                           size_t interfaceSize,
                                                           const KestoBearerSupportAPI* supportTable,
                                                           size_t supportSize) {
    KestoBearerImpl* bearer = new (std::nothrow)
        KestoBearerAAP(name, bearerContext, interfaceTable, interfaceSize, supportTable, supportSize);
    return bearer;
}
