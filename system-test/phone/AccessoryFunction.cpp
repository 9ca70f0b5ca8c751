#include "AccessoryFunction.h"

#include <fcntl.h>
#include <linux/usb/functionfs.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace {

// Class, subclass and protocol of the two interfaces a phone in accessory mode offers.
constexpr uint8_t kAccessoryClass[3] = {0xFF, 0xFF, 0x00};
constexpr uint8_t kDebugBridgeClass[3] = {0xFF, 0x42, 0x01};
// Bulk packet sizes at full, high and super speed.
constexpr uint16_t kPacketSizes[3] = {64, 512, 1024};

class Bytes {
public:
    void Byte(uint8_t value) { data.push_back(value); }
    void Le16(uint16_t value) { Byte(value & 0xFF), Byte(value >> 8); }
    void Le32(uint32_t value) { Le16(value & 0xFFFF), Le16(value >> 16); }
    void Text(const char* text) { data.insert(data.end(), text, text + std::strlen(text) + 1); }
    std::vector<uint8_t> data;
};

// One interface with a bulk IN and a bulk OUT endpoint; returns the descriptors written.
int AddInterface(Bytes& out, uint8_t number, const uint8_t (&kind)[3], uint8_t inAddress, int speed) {
    out.Byte(USB_DT_INTERFACE_SIZE), out.Byte(USB_DT_INTERFACE), out.Byte(number), out.Byte(0), out.Byte(2);
    out.Byte(kind[0]), out.Byte(kind[1]), out.Byte(kind[2]), out.Byte(1);
    int count = 1;
    for (uint8_t address : {static_cast<uint8_t>(inAddress | USB_DIR_IN), static_cast<uint8_t>(inAddress + 1)}) {
        out.Byte(USB_DT_ENDPOINT_SIZE), out.Byte(USB_DT_ENDPOINT), out.Byte(address), out.Byte(USB_ENDPOINT_XFER_BULK);
        out.Le16(kPacketSizes[speed]), out.Byte(0);
        ++count;
        if (speed == 2) {
            out.Byte(USB_DT_SS_EP_COMP_SIZE), out.Byte(USB_DT_SS_ENDPOINT_COMP), out.Byte(0), out.Byte(0), out.Le16(0);
            ++count;
        }
    }
    return count;
}

void WriteAll(int fd, const std::vector<uint8_t>& bytes, const char* what) {
    if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error(std::string("FunctionFS refused the ") + what + ": " + std::strerror(errno));
}

} // namespace

AccessoryFunction::AccessoryFunction(const std::string& instance, const std::string& mountPoint, bool debugBridgeFirst)
    : mountPoint_(mountPoint) {
    mkdir(mountPoint.c_str(), 0755);
    if (mount(instance.c_str(), mountPoint.c_str(), "functionfs", 0, nullptr) != 0)
        throw std::runtime_error("cannot mount FunctionFS at " + mountPoint + ": " + std::strerror(errno));
    ep0_ = open((mountPoint + "/ep0").c_str(), O_RDWR);
    if (ep0_ < 0)
        throw std::runtime_error(std::string("cannot open ep0: ") + std::strerror(errno));
    WriteDescriptors(debugBridgeFirst);
    WriteStrings();
    // Endpoint files are numbered in the order the descriptors list the endpoints.
    int first = debugBridgeFirst ? 3 : 1;
    in_ = OpenEndpoint(first);
    out_ = OpenEndpoint(first + 1);
}

AccessoryFunction::~AccessoryFunction() {
    for (int fd : {in_, out_, ep0_})
        if (fd >= 0)
            close(fd);
    umount(mountPoint_.c_str());
}

void AccessoryFunction::WriteDescriptors(bool debugBridgeFirst) {
    Bytes body;
    uint32_t counts[3] = {};
    for (int speed = 0; speed < 3; ++speed) {
        if (debugBridgeFirst) {
            counts[speed] += AddInterface(body, 0, kDebugBridgeClass, 1, speed);
            counts[speed] += AddInterface(body, 1, kAccessoryClass, 3, speed);
        } else {
            counts[speed] += AddInterface(body, 0, kAccessoryClass, 1, speed);
            counts[speed] += AddInterface(body, 1, kDebugBridgeClass, 3, speed);
        }
    }
    Bytes head;
    head.Le32(FUNCTIONFS_DESCRIPTORS_MAGIC_V2);
    head.Le32(static_cast<uint32_t>(4 * 6 + body.data.size()));
    head.Le32(FUNCTIONFS_HAS_FS_DESC | FUNCTIONFS_HAS_HS_DESC | FUNCTIONFS_HAS_SS_DESC | FUNCTIONFS_ALL_CTRL_RECIP);
    for (uint32_t count : counts)
        head.Le32(count);
    head.data.insert(head.data.end(), body.data.begin(), body.data.end());
    WriteAll(ep0_, head.data, "descriptors");
}

void AccessoryFunction::WriteStrings() {
    Bytes body;
    body.Le16(0x0409);
    body.Text("Android Accessory Interface");
    Bytes head;
    head.Le32(FUNCTIONFS_STRINGS_MAGIC);
    head.Le32(static_cast<uint32_t>(16 + body.data.size()));
    head.Le32(1); // strings
    head.Le32(1); // languages
    head.data.insert(head.data.end(), body.data.begin(), body.data.end());
    WriteAll(ep0_, head.data, "strings");
}

int AccessoryFunction::OpenEndpoint(int number) {
    std::string path = mountPoint_ + "/ep" + std::to_string(number);
    int fd = open(path.c_str(), O_RDWR);
    if (fd < 0)
        throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
    return fd;
}

bool AccessoryFunction::NextEvent(Event& event) {
    while (pending_.empty()) {
        usb_functionfs_event raw[4];
        ssize_t n = read(ep0_, raw, sizeof raw);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        for (size_t i = 0; i < static_cast<size_t>(n) / sizeof raw[0]; ++i) {
            Event e{Event::Type::Other, raw[i].u.setup};
            switch (raw[i].type) {
            case FUNCTIONFS_ENABLE: e.type = Event::Type::Enable; break;
            case FUNCTIONFS_DISABLE: e.type = Event::Type::Disable; break;
            case FUNCTIONFS_UNBIND: e.type = Event::Type::Unbind; break;
            case FUNCTIONFS_SETUP: e.type = Event::Type::Setup; break;
            default: break;
            }
            pending_.push_back(e);
        }
    }
    event = pending_.front();
    pending_.pop_front();
    return true;
}

bool AccessoryFunction::Answer(const void* data, size_t length) {
    return write(ep0_, data, length) == static_cast<ssize_t>(length);
}

bool AccessoryFunction::Take(std::string& data, size_t length) {
    data.assign(length, '\0');
    ssize_t n = read(ep0_, &data[0], length);
    if (n < 0)
        return false;
    data.resize(static_cast<size_t>(n));
    return true;
}

void AccessoryFunction::Refuse(const usb_ctrlrequest& setup) {
    char none = 0;
    if (setup.bRequestType & USB_DIR_IN)
        (void)!read(ep0_, &none, 0);
    else
        (void)!write(ep0_, &none, 0);
}
