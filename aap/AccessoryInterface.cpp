#include "aap/AccessoryInterface.h"

namespace {

// The debug-bridge interface a phone in accessory mode may expose beside ours.
constexpr uint8_t kBridgeClass = 0xFF;
constexpr uint8_t kBridgeSubClass = 0x42;
constexpr uint8_t kBridgeProtocol = 0x01;

bool IsDebugBridge(const libusb_interface_descriptor& alt) {
    return alt.bInterfaceClass == kBridgeClass && alt.bInterfaceSubClass == kBridgeSubClass &&
           alt.bInterfaceProtocol == kBridgeProtocol;
}

// The first bulk IN and the first bulk OUT endpoint, in descriptor order.
// Anything else (interrupt or isochronous endpoints, a second of a direction)
// would turn reads into writes or send a read buffer's stale bytes.
bool FindBulkPair(const libusb_interface_descriptor& alt, uint8_t* in, uint8_t* out) {
    bool haveIn = false;
    bool haveOut = false;
    for (int k = 0; alt.endpoint != nullptr && k < alt.bNumEndpoints; ++k) {
        const libusb_endpoint_descriptor& endpoint = alt.endpoint[k];
        if ((endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) != LIBUSB_TRANSFER_TYPE_BULK) {
            continue;
        }
        bool isIn = (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_DIR_MASK) == LIBUSB_ENDPOINT_IN;
        if (isIn && !haveIn) {
            *in = endpoint.bEndpointAddress;
            haveIn = true;
        } else if (!isIn && !haveOut) {
            *out = endpoint.bEndpointAddress;
            haveOut = true;
        }
    }
    return haveIn && haveOut;
}

} // namespace

AccessoryInterface AccessoryInterface::Choose(const libusb_config_descriptor& config, int wantedInterface,
                                              int wantedAlternate) {
    AccessoryInterface chosen;
    if (config.bNumInterfaces == 0 || config.interface == nullptr) {
        chosen.outcome = Outcome::kNoInterfaces;
        return chosen;
    }
    // Checked on the first interface whatever is chosen later: phones put the
    // accessory interface first, and this is how this check has always been.
    const libusb_interface& first = config.interface[0];
    if (first.num_altsetting < 1 || first.altsetting == nullptr || first.altsetting[0].bNumEndpoints < 2) {
        chosen.outcome = Outcome::kTooFewEndpoints;
        return chosen;
    }
    const libusb_interface_descriptor* choice = nullptr;
    uint8_t in = 0;
    uint8_t out = 0;
    for (int i = 0; i < config.bNumInterfaces; ++i) {
        const libusb_interface& iface = config.interface[i];
        for (int j = 0; iface.altsetting != nullptr && j < iface.num_altsetting; ++j) {
            const libusb_interface_descriptor& alt = iface.altsetting[j];
            if (wantedAlternate != -1 && alt.bAlternateSetting != wantedAlternate) {
                continue;
            }
            if (wantedInterface != -1) {
                if (alt.bInterfaceNumber == wantedInterface) {
                    choice = &alt;
                    break;
                }
            } else if (!IsDebugBridge(alt) && FindBulkPair(alt, &in, &out) &&
                       (choice == nullptr || alt.bInterfaceNumber < choice->bInterfaceNumber)) {
                choice = &alt;
            }
        }
    }
    if (choice == nullptr) {
        return chosen;
    }
    chosen.number = choice->bInterfaceNumber;
    if (!FindBulkPair(*choice, &in, &out)) {
        chosen.outcome = Outcome::kNoBulkPair;
        return chosen;
    }
    chosen.outcome = Outcome::kChosen;
    chosen.alternateSetting = choice->bAlternateSetting;
    chosen.inEndpoint = in;
    chosen.outEndpoint = out;
    return chosen;
}
