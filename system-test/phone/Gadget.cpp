#include "Gadget.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace {

const char* const kGadgets = "/sys/kernel/config/usb_gadget/";
const char* const kControllers = "/sys/class/udc";
const char* const kEnglish = "strings/0x409";

void WriteFile(const std::string& path, const std::string& text) {
    int fd = open(path.c_str(), O_WRONLY);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        std::string message = "cannot write " + path + ": " + std::strerror(errno);
        if (fd >= 0)
            close(fd);
        throw std::runtime_error(message);
    }
    close(fd);
}

std::string ReadLine(const std::string& path) {
    char text[64] = {};
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return "";
    ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    std::string line(text, n > 0 ? static_cast<size_t>(n) : 0);
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
    return line;
}

void MakeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::runtime_error("cannot make " + path + ": " + std::strerror(errno));
}

std::string Hex(uint16_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", value);
    return text;
}

// dummy_hcd gives the machine exactly one device controller.
std::string OnlyController() {
    DIR* dir = opendir(kControllers);
    std::string name;
    while (dir != nullptr) {
        dirent* entry = readdir(dir);
        if (entry == nullptr)
            break;
        if (entry->d_name[0] != '.')
            name = entry->d_name;
    }
    if (dir != nullptr)
        closedir(dir);
    if (name.empty())
        throw std::runtime_error("no USB device controller (is dummy_hcd loaded?)");
    return name;
}

} // namespace

Gadget::Gadget(std::string name, std::string function, const Identity& identity)
    : root_(kGadgets + name + "/"), function_("ffs." + function), controller_(OnlyController()) {
    MakeDirectory(root_);
    SetIds(identity.vendor, identity.product);
    WriteFile(root_ + "bcdUSB", "0x0200");
    MakeDirectory(root_ + kEnglish);
    WriteFile(root_ + kEnglish + "/serialnumber", identity.serial);
    WriteFile(root_ + kEnglish + "/manufacturer", "Kesto");
    WriteFile(root_ + kEnglish + "/product", "FunctionFS phone");
    MakeDirectory(root_ + "configs/c.1");
    MakeDirectory(root_ + "configs/c.1/" + kEnglish);
    WriteFile(root_ + "configs/c.1/" + kEnglish + "/configuration", "accessory");
    MakeDirectory(root_ + "functions/" + function_);
    std::string link = root_ + "configs/c.1/" + function_;
    if (symlink((root_ + "functions/" + function_).c_str(), link.c_str()) != 0 && errno != EEXIST)
        throw std::runtime_error("cannot link " + link + ": " + std::strerror(errno));
}

Gadget::~Gadget() {
    Unbind();
    unlink((root_ + "configs/c.1/" + function_).c_str());
    rmdir((root_ + "configs/c.1/" + kEnglish).c_str());
    rmdir((root_ + "configs/c.1").c_str());
    rmdir((root_ + "functions/" + function_).c_str());
    rmdir((root_ + kEnglish).c_str());
    rmdir(root_.c_str());
}

void Gadget::Bind() {
    WriteFile(root_ + "UDC", controller_);
}

void Gadget::Unbind() {
    if (!ReadLine(root_ + "UDC").empty())
        WriteFile(root_ + "UDC", "\n");
}

void Gadget::SetIds(uint16_t vendor, uint16_t product) {
    WriteFile(root_ + "idVendor", Hex(vendor));
    WriteFile(root_ + "idProduct", Hex(product));
}

std::string Gadget::Speed() const {
    return ReadLine(std::string(kControllers) + "/" + controller_ + "/current_speed");
}
