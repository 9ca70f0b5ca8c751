#pragma once

#include "bearer/KestoBearerImpl.h"

// The accessory bearer: creates KestoConnectionAAP connections and names itself.
class KestoBearerAAP : public KestoBearerImpl {
public:
    using KestoBearerImpl::KestoBearerImpl;
    ~KestoBearerAAP() override;

    int CreateConnection(void* connectionContext, void** connectionOut) override;
    char* GetProperty(int property) override;
};
