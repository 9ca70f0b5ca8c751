#include "bearer/InterfaceTable.h"

#include <cstring>
#include <exception>

#include "bearer/KestoBearerImpl.h"
#include "bearer/KestoConnectionImpl.h"

// Every entry point that calls into the bearer or a connection is a fence:
// a standard exception must not unwind into the toolkit's C code. Other
// exception types are deliberately left alone.
namespace {

template <typename Object, typename Result, typename Call>
Result Fenced(Object* object, const char* message, Result failed, Call call) {
    try {
        return call();
    } catch (const std::exception& e) {
        object->Log(message, e.what());
        return failed;
    }
}

KestoBearerImpl* AsBearer(void* handle) { return static_cast<KestoBearerImpl*>(handle); }
KestoConnectionImpl* AsConnection(void* handle) { return static_cast<KestoConnectionImpl*>(handle); }

void bearerTerminate(void* bearer) {
    delete AsBearer(bearer);
}

int bearerCreateConnection(void* bearer, void* connectionContext, void** connectionOut) {
    KestoBearerImpl* b = AsBearer(bearer);
    return Fenced(b, "KestoBearerImpl::CreateConnection caught exception: %s\n", int(KestoBearerErrorFailed),
                  [&] { return b->CreateConnection(connectionContext, connectionOut); });
}

char* bearerGetProperty(void* bearer, int property) {
    KestoBearerImpl* b = AsBearer(bearer);
    return Fenced(b, "KestoBearerImpl::GetProperty caught exception: %s\n", static_cast<char*>(nullptr),
                  [&] { return b->GetProperty(property); });
}

int connectionEstablish(void* connection) {
    KestoConnectionImpl* c = AsConnection(connection);
    return Fenced(c, "KestoConnectionImpl::Establish caught exception: %s\n", int(KestoBearerErrorFailed),
                  [&] { return c->Establish(); });
}

void connectionDestroy(void* connection) {
    delete AsConnection(connection);
}

int connectionRead(void* connection, uint8_t* buffer, uint32_t* length) {
    KestoConnectionImpl* c = AsConnection(connection);
    return Fenced(c, "KestoConnectionImpl::Read caught exception: %s\n", int(KestoBearerErrorFailed),
                  [&] { return c->Read(buffer, length); });
}

int connectionWrite(void* connection, const uint8_t* buffer, uint32_t* length) {
    KestoConnectionImpl* c = AsConnection(connection);
    return Fenced(c, "KestoConnectionImpl::Write caught exception: %s\n", int(KestoBearerErrorFailed),
                  [&] { return c->Write(buffer, length); });
}

int connectionGetEventHandle(void* connection, int* eventHandle, intptr_t* extra) {
    KestoConnectionImpl* c = AsConnection(connection);
    return Fenced(c, "KestoConnectionImpl::GetEventHandle caught exception: %s\n", int(KestoBearerErrorFailed),
                  [&] { return c->GetEventHandle(eventHandle, extra); });
}

int connectionGetActivity(void* connection, uint32_t* activity) {
    KestoConnectionImpl* c = AsConnection(connection);
    return Fenced(c, "KestoConnectionImpl::GetActivity caught exception: %s\n", int(KestoBearerErrorFailed),
                  [&] { return c->GetActivity(activity); });
}

char* connectionGetProperty(void* connection, int property) {
    KestoConnectionImpl* c = AsConnection(connection);
    return Fenced(c, "KestoConnectionImpl::GetProperty caught exception: %s\n", static_cast<char*>(nullptr),
                  [&] { return c->GetProperty(property); });
}

int connectionTimerExpired(void* connection) {
    KestoConnectionImpl* c = AsConnection(connection);
    return Fenced(c, "KestoConnectionImpl::TimerExpired caught exception: %s\n", int(KestoBearerErrorFailed),
                  [&] { return c->TimerExpired(); });
}

} // namespace

void FillInterfaceTable(KestoBearerInterface* table, size_t size) {
    if (table == nullptr) {
        return;
    }
    const KestoBearerInterface full = {
        bearerTerminate,        bearerCreateConnection,   bearerGetProperty,     connectionEstablish,
        connectionDestroy,      connectionRead,           connectionWrite,       connectionGetEventHandle,
        connectionGetActivity,  connectionGetProperty,    connectionTimerExpired,
    };
    // A table that ends inside a slot keeps that slot as it was.
    std::memcpy(table, &full, WholeSlotBytes(size, sizeof full));
}

size_t WholeSlotBytes(size_t givenSize, size_t tableSize) {
    const size_t slot = sizeof(void (*)());
    const size_t bytes = givenSize / slot * slot;
    return bytes < tableSize ? bytes : tableSize;
}
