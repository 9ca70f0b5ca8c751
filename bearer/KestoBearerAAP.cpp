#include "bearer/KestoBearerAAP.h"

#include "aap/KestoConnectionAAP.h"

KestoBearerAAP::~KestoBearerAAP() = default;

int KestoBearerAAP::CreateConnection(void* connectionContext, void** connectionOut) {
    // Throwing allocation on purpose: the fence turns bad_alloc into 11.
    KestoConnectionImpl* connection = new KestoConnectionAAP(this, connectionContext);
    *connectionOut = connection;
    return KestoBearerErrorNone;
}

char* KestoBearerAAP::GetProperty(int property) {
    switch (property) {
    case KestoBearerPropertyTitle:
        return AllocPropertyString("Kesto Android Accessory Protocol bearer");
    case KestoBearerPropertyDescription:
        return AllocPropertyString("Connects to an Android device, acting as an Accessory");
    default:
        return KestoBearerImpl::GetProperty(property);
    }
}
