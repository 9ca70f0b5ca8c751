#include "fakeusb/World.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace fakeusb::detail {

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

void World::Record(std::string call) {
    calls.push_back(std::move(call));
}

void World::Misuse(const std::string& what) {
    misuses.push_back(what);
    if (misusesFailTests) {
        ADD_FAILURE() << "libusb misuse: " << what;
    }
}

bool World::Inject(Function function, int* error) {
    auto it = failures.find(function);
    if (it == failures.end()) {
        return false;
    }
    FailureRule& rule = it->second;
    if (rule.skip > 0) {
        rule.skip--;
        return false;
    }
    if (rule.count == 0) {
        return false;
    }
    if (rule.count > 0) {
        rule.count--;
    }
    *error = rule.error;
    return true;
}

bool World::LiveContext(const libusb_context* context, const char* function) {
    auto it = std::find_if(contexts.begin(), contexts.end(), [&](auto& c) { return c.get() == context; });
    if (context == nullptr) {
        Misuse(Format("%s: the default (null) context is not supported by the double", function));
    } else if (it == contexts.end()) {
        Misuse(Format("%s: unknown context", function));
    } else if (!context->live) {
        Misuse(Format("%s: context used after libusb_exit", function));
    } else {
        return true;
    }
    return false;
}

bool World::HeldDevice(const libusb_device* device, const char* function) {
    auto it = std::find_if(devices.begin(), devices.end(), [&](auto& d) { return d.get() == device; });
    if (it == devices.end()) {
        Misuse(Format("%s: unknown device", function));
    } else if (device->refs == 0) {
        Misuse(Format("%s: device %s used without holding a reference", function, NameOf(device).c_str()));
    } else {
        return true;
    }
    return false;
}

bool World::OpenHandle(const libusb_device_handle* handle, const char* function) {
    auto it = std::find_if(handles.begin(), handles.end(), [&](auto& h) { return h.get() == handle; });
    if (it == handles.end()) {
        Misuse(Format("%s: unknown device handle", function));
    } else if (!handle->open) {
        Misuse(Format("%s: handle of %s used after libusb_close", function, NameOf(handle).c_str()));
    } else {
        return true;
    }
    return false;
}

std::string World::NameOf(const libusb_device* device) const {
    for (auto& d : devices) {
        if (d.get() == device) {
            return Format("%u:%u", device->physical->description.bus, device->physical->description.address);
        }
    }
    return "?";
}

std::string World::NameOf(const libusb_device_handle* handle) const {
    for (auto& h : handles) {
        if (h.get() == handle) {
            return NameOf(handle->device);
        }
    }
    return "?";
}

PhysicalDevice* World::Physical(int id) const {
    return id >= 1 && id <= static_cast<int>(physical.size()) ? physical[id - 1].get() : nullptr;
}

libusb_device* World::DeviceFor(libusb_context* context, PhysicalDevice* device) {
    libusb_device*& mine = context->devices[device];
    if (mine == nullptr) {
        devices.push_back(std::make_unique<libusb_device>(libusb_device{context, device, 0}));
        mine = devices.back().get();
    }
    return mine;
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
        (void)written; // a pipe with one byte in it has room for it
    }
    context->completions.push_back(transfer);
}

void World::DrainPipe(const libusb_context* context) {
    char bytes[16];
    while (read(context->readFd, bytes, sizeof bytes) > 0) {
    }
}

void World::Clear() {
    for (auto& context : contexts) {
        if (context->live) {
            close(context->readFd);
            close(context->writeFd);
        }
    }
    for (auto& entry : transfers) {
        free(entry.first);
    }
    for (libusb_device** list : deviceLists) {
        free(list);
    }
    physical.clear();
    bus.clear();
    contexts.clear();
    devices.clear();
    handles.clear();
    deviceLists.clear();
    configs.clear();
    transfers.clear();
    submissions.clear();
    failures.clear();
    nextTimeout.reset();
    responder = nullptr;
    handleEventsHook = nullptr;
    calls.clear();
    misuses.clear();
    misusesFailTests = true;
    pollfdListsHandedOut = 0;
    handleEventsCalls = 0;
}

} // namespace fakeusb::detail
