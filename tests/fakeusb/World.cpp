#include "fakeusb/World.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace fakeusb::detail {

std::mutex World::mutex;
bool World::abortOnMisuse = false;

World& TheWorld() {
    static World world;
    return world;
}

std::string Format(const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

void World::Misuse(const std::string& what) {
    if (abortOnMisuse) {
        std::fprintf(stderr, "libusb misuse: %s\n", what.c_str());
        std::abort();
    }
    ADD_FAILURE() << "libusb misuse: " << what;
}

std::optional<int> World::Inject(Function function) {
    auto it = failures.find(function);
    if (it == failures.end() || it->second.skip-- > 0) {
        return std::nullopt;
    }
    const int error = it->second.error;
    failures.erase(it);
    return error;
}

bool World::LiveContext(const libusb_context* context, const char* function) {
    const bool live = context != nullptr && context->live;
    if (!live) {
        Misuse(Format("%s: %s context", function, context == nullptr ? "null" : "ended (libusb_exit)"));
    }
    return live;
}

bool World::HeldDevice(const libusb_device* device, const char* function) {
    const bool held = device != nullptr && device->refs > 0;
    if (!held) {
        Misuse(Format("%s: device %s used without holding a reference", function, NameOf(device).c_str()));
    }
    return held;
}

bool World::OpenHandle(const libusb_device_handle* handle, const char* function) {
    const bool open = handle != nullptr && handle->open;
    if (!open) {
        Misuse(Format("%s: handle of %s used after libusb_close", function, NameOf(handle).c_str()));
    }
    return open;
}

std::optional<int> World::Enter(const char* name, libusb_device* device, const std::string& args,
                                std::optional<Function> failure) {
    calls.push_back(Format("%s(%s%s)", name, NameOf(device).c_str(), args.c_str()));
    if (!HeldDevice(device, name)) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    return failure ? Inject(*failure) : std::nullopt;
}

std::optional<int> World::Enter(const char* name, libusb_device_handle* handle, const std::string& args,
                                std::optional<Function> failure) {
    calls.push_back(Format("%s(%s%s)", name, NameOf(handle).c_str(), args.c_str()));
    if (!OpenHandle(handle, name)) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (std::optional<int> error = failure ? Inject(*failure) : std::nullopt) {
        return error;
    }
    if (!handle->device->physical->present) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return std::nullopt;
}

std::string World::NameOf(const libusb_device* device) {
    return device != nullptr ? Format("%u:%u", device->physical->description.bus, device->physical->description.address) : "?";
}

std::string World::NameOf(const libusb_device_handle* handle) {
    return NameOf(handle != nullptr ? handle->device : nullptr);
}

libusb_device* World::DeviceFor(libusb_context* context, PhysicalDevice* device) {
    std::unique_ptr<libusb_device>& mine = context->devices[device];
    if (mine == nullptr) {
        mine = std::make_unique<libusb_device>(libusb_device{context, device, 0});
    }
    return mine.get();
}

void World::Queue(libusb_transfer* transfer, TransferState& state, Outcome outcome) {
    libusb_context* context = state.handle->device->context;
    if (!context->live) {
        return; // its pipe is closed; libusb_exit reported the transfer
    }
    state.phase = TransferState::Phase::Completing;
    state.outcome = std::move(outcome);
    if (context->completions.empty()) {
        char byte = 0;
        ssize_t written = write(context->writeFd, &byte, 1);
        (void)written; // the pipe is empty: it has room for one byte
    }
    context->completions.push_back(transfer);
}

void World::Clear() {
    for (auto& context : contexts) {
        if (context->live) {
            close(context->readFd);
            close(context->writeFd);
        }
    }
    for (auto& handle : handles) {
        for (int fd : handle->fds) {
            if (fd != -1) {
                close(fd);
            }
        }
    }
    for (auto& entry : transfers) {
        free(entry.first);
    }
    for (libusb_device** list : deviceLists) {
        free(list);
    }
    *this = World();
}

} // namespace fakeusb::detail
