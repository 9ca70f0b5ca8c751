#pragma once

// The state behind the fake libusb functions and the test API, all of it
// under one mutex. Internal to the double: tests use what FakeUsb.h gathers.
// The double never calls out (transfer callbacks, responder, hook, removal
// notifier) while holding the mutex, so those may call back in.

#include <libusb.h>
#include <sys/time.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fakeusb/DeviceSpec.h"
#include "fakeusb/Failures.h"
#include "fakeusb/Transfers.h"

namespace fakeusb::detail {

// One device on the bus, shared by the libusb_device of every context. Its
// description's configuration and kernel driver state change as libusb calls say.
struct PhysicalDevice {
    int id;
    DeviceSpec description;
    bool present;
};

// How a transfer ends when its completion is delivered.
struct Outcome {
    int status = LIBUSB_TRANSFER_COMPLETED;
    int actualLength = 0;
    std::vector<uint8_t> data; // copied into the buffer at `offset`
    int offset = 0;
};

struct TransferState {
    enum class Phase { Idle, InFlight, Completing };
    Phase phase = Phase::Idle;
    int submissionId = 0;
    libusb_device_handle* handle = nullptr; // as submitted: the code under test may refill the transfer
    Outcome outcome;                        // delivered while Completing
    Outcome cancelled;                      // what a cancellation delivers
};

// A configuration descriptor with the arrays it points into.
struct ConfigStorage {
    libusb_config_descriptor config{};
    std::vector<libusb_interface> interfaces;
    std::deque<std::vector<libusb_interface_descriptor>> altSettings; // per interface
    std::deque<std::vector<libusb_endpoint_descriptor>> endpoints;    // per alternate setting
};

struct FailureRule {
    int error;
    int skip;
};

struct World {
    static std::mutex mutex; // static: Clear starts the world afresh by assignment
    static bool abortOnMisuse;

    std::vector<std::unique_ptr<PhysicalDevice>> physical; // by id - 1, in list order
    // libusb objects stay allocated until Reset, so that a stale pointer is
    // reported as a misuse instead of crashing the test.
    std::vector<std::unique_ptr<libusb_context>> contexts;
    std::vector<std::unique_ptr<libusb_device_handle>> handles;
    std::set<libusb_device**> deviceLists;
    std::map<const libusb_config_descriptor*, std::unique_ptr<ConfigStorage>> configs;
    std::map<libusb_transfer*, TransferState> transfers;
    std::vector<Submission> submissions;

    std::map<Function, FailureRule> failures;
    std::optional<timeval> nextTimeout;
    std::function<void(const Submission&)> responder;
    std::function<void()> handleEventsHook;
    std::vector<std::string> calls;
    bool deviceDescriptors = false;

    // Everything below runs with `mutex` held.
    void Misuse(const std::string& what);
    // The scripted error for this call of `function`, if one is due.
    std::optional<int> Inject(Function function);

    // Validity checks; each reports a misuse by `function` when it fails.
    bool LiveContext(const libusb_context* context, const char* function);
    bool HeldDevice(const libusb_device* device, const char* function);
    bool OpenHandle(const libusb_device_handle* handle, const char* function);
    // The prologue of a recorded libusb call on a device or handle: records
    // "name(bus:address<args>)", then gives the call's answer when it must
    // not go ahead (misuse, scripted failure, or for a handle, device gone).
    std::optional<int> Enter(const char* name, libusb_device* device, const std::string& args,
                             std::optional<Function> failure);
    std::optional<int> Enter(const char* name, libusb_device_handle* handle, const std::string& args,
                             std::optional<Function> failure);
    // "bus:address", or "?" for null.
    static std::string NameOf(const libusb_device* device);
    static std::string NameOf(const libusb_device_handle* handle);

    // The context's libusb_device for a physical device, made on first listing.
    libusb_device* DeviceFor(libusb_context* context, PhysicalDevice* physical);
    // Marks the transfer completing and queues it on its context, making the
    // context's poll descriptor readable.
    void Queue(libusb_transfer* transfer, TransferState& state, Outcome outcome);

    void Clear();
};

World& TheWorld();
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// f(world), under the world's lock.
template <typename F>
auto Locked(F f) {
    World& w = TheWorld();
    std::lock_guard<std::mutex> lock(w.mutex);
    return f(w);
}

} // namespace fakeusb::detail

// libusb's opaque types, completed by the double.
struct libusb_device {
    libusb_context* context;
    fakeusb::detail::PhysicalDevice* physical;
    int refs = 0;
};

struct libusb_context {
    int readFd = -1;
    int writeFd = -1;
    bool live = true;
    libusb_pollfd_added_cb added = nullptr;
    libusb_pollfd_removed_cb removed = nullptr;
    void* notifierData = nullptr;
    std::deque<libusb_transfer*> completions;
    std::map<fakeusb::detail::PhysicalDevice*, std::unique_ptr<libusb_device>> devices; // made on first listing
};

struct libusb_device_handle {
    libusb_device* device;
    bool open = true;
    std::vector<int> claimed;
    // The device file's stand-in, with Events::AnnounceDeviceDescriptors: a
    // pipe whose write end closes when the device is unplugged.
    int fds[2] = {-1, -1};
};
