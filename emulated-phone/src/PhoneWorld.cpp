#include "emulated-phone/PhoneWorld.h"

#include "Phone.h"
#include "World.h"

#include <dlfcn.h>
#include <stdexcept>

namespace emuphone {

PhoneWorld::PhoneWorld(IoctlPath path)
{
    if (path == IoctlPath::Interposed && !PreloadActive())
        throw std::runtime_error("emulated phone: the interposed path needs umockdev's preload in this process "
                                 "(run under umockdev-wrapper, or LD_PRELOAD=libumockdev-preload.so.0)");
    world_ = std::make_unique<World>(path);
}

PhoneWorld::~PhoneWorld() = default;

EmulatedPhone& PhoneWorld::AddPhone(const PhoneOptions& options)
{
    phones_.emplace_back(world_->AddPhone(options));
    return phones_.back();
}

std::string PhoneWorld::RootDir() const { return world_->Bed().Root(); }

PhoneWorld::IoctlPath PhoneWorld::Path() const { return world_->Path(); }

// umockdev_in_mock_environment() only says whether a testbed root is exported;
// what matters is whether the preload library is part of this process.
bool PhoneWorld::PreloadActive()
{
    void* preload = dlopen("libumockdev-preload.so.0", RTLD_NOW | RTLD_NOLOAD);
    if (preload)
        dlclose(preload);
    return preload != nullptr;
}

} // namespace emuphone
