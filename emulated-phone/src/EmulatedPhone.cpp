#include "emulated-phone/EmulatedPhone.h"

#include "Phone.h"

namespace emuphone {

EmulatedPhone::EmulatedPhone(std::shared_ptr<Phone> phone) : phone_(std::move(phone)) {}

PhoneReport EmulatedPhone::Report() const { return phone_->Report(); }

bool EmulatedPhone::WaitFor(PhoneStage stage, std::chrono::milliseconds timeout) const
{
    return phone_->WaitUntil([stage](const PhoneReport& report) { return report.Reached(stage); }, timeout);
}

bool EmulatedPhone::WaitUntil(const std::function<bool(const PhoneReport&)>& done,
                              std::chrono::milliseconds timeout) const
{
    return phone_->WaitUntil(done, timeout);
}

int EmulatedPhone::BusNumber() const { return phone_->BusNumber(); }

int EmulatedPhone::Address() const { return phone_->Address(); }

void EmulatedPhone::Unplug() { phone_->Unplug(); }

void EmulatedPhone::WriteToHost(std::vector<uint8_t> bytes) { phone_->WriteToHost(std::move(bytes)); }

} // namespace emuphone
