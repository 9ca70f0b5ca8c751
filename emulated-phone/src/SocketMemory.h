#pragma once

#include "UsbfsMemory.h"

#include <vector>

typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;

namespace emuphone {

// The caller's memory through umockdev's ioctl socket: every block is copied
// in when resolved and written back, where it changed, when the request
// completes. A URB's copies live until it is reaped, as its token.
class SocketMemory final : public UsbfsMemory {
public:
    explicit SocketMemory(UMockdevIoctlClient* client);
    ~SocketMemory();
    SocketMemory(const SocketMemory&) = delete;
    SocketMemory& operator=(const SocketMemory&) = delete;

    void* Argument(size_t size) override;
    uintptr_t ArgumentValue() override;
    bool TakeUrb(Urb& urb) override;
    bool ReturnUrb(const Urb& urb) override;

private:
    UMockdevIoctlData* Resolve(UMockdevIoctlData* parent, size_t offset, size_t length);

    UMockdevIoctlData* argument_;
    std::vector<UMockdevIoctlData*> held_;
};

} // namespace emuphone
