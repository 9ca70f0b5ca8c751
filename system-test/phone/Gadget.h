#pragma once

#include <cstdint>
#include <string>

// A USB gadget made in configfs with one configuration holding one FunctionFS
// function, bound to the machine's only device controller. The kernel's
// composite driver answers the standard requests; the function answers the rest.
class Gadget {
public:
    struct Identity {
        uint16_t vendor;
        uint16_t product;
        std::string serial;
    };

    // Creates the gadget's directories; the function's instance is named `function`.
    Gadget(std::string name, std::string function, const Identity& identity);
    // Unbinds and removes what the constructor made, ignoring what is already gone.
    ~Gadget();
    Gadget(const Gadget&) = delete;
    Gadget& operator=(const Gadget&) = delete;

    // Plugs the gadget in: the host sees a new device.
    void Bind();
    // Pulls the cable: the host sees the device leave.
    void Unbind();
    // Takes effect at the next Bind.
    void SetIds(uint16_t vendor, uint16_t product);
    // "high-speed", "super-speed", ... as the controller negotiated it.
    std::string Speed() const;

private:
    std::string root_;
    std::string function_;
    std::string controller_;
};
