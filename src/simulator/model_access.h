// The model's side of the hardware seams: configuration space, system facts
// and graphics accessors answered by a PlatformModel instead of the machine.
#pragma once

#include <memory>

#include "hardware/pci_access.h"
#include "hardware/system_facts.h"
#include "simulator/platform_model.h"

namespace sim {

// Like the real accessors every access reports success; an absent function
// shows as all ones.
class ModelReadPCI final : public ReadPCI {
public:
    explicit ModelReadPCI(std::shared_ptr<PlatformModel> model) : _model(std::move(model)) {}
    bool read32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                unsigned int offset, unsigned int& value) const override;
    bool read16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                unsigned int offset, unsigned int& value) const override;
    bool read8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
               unsigned int offset, unsigned int& value) const override;

private:
    std::shared_ptr<PlatformModel> _model;
};

class ModelWritePCI final : public WritePCI {
public:
    explicit ModelWritePCI(std::shared_ptr<PlatformModel> model) : _model(std::move(model)) {}
    bool write32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                 unsigned int offset, unsigned int value) const override;
    bool write16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                 unsigned int offset, unsigned int value) const override;
    bool write8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                unsigned int offset, unsigned int value) const override;

private:
    std::shared_ptr<PlatformModel> _model;
};

// Machine facts from the profile, time from the model clock.
class ModelSystemFacts final : public SystemFacts {
public:
    explicit ModelSystemFacts(std::shared_ptr<PlatformModel> model) : _model(std::move(model)) {}

    void sleep_for(std::chrono::microseconds nominal) override { _model->clock().sleep_for(nominal); }
    void begin_wait() override { _model->clock().begin_wait(); }
    void end_wait() override { _model->clock().end_wait(); }
    std::chrono::system_clock::time_point now() override {
        ModelClock& clock = _model->clock();
        return clock.to_system(clock.now().ns);
    }
    std::string host_name() override { return _model->profile().machine.host_name; }
    std::string bios_version() override { return _model->profile().machine.bios_version; }
    std::string product_name() override { return _model->profile().machine.product_name; }
    std::string os_name() override { return _model->profile().machine.os_name; }
    std::string kernel_version() override { return _model->profile().machine.kernel_version; }
    std::string numa_mode() override { return std::to_string(_model->profile().machine.numa_nodes); }
    ProcessorIdentity processor_identity() override {
        const ProcessorProfile& p = _model->profile().processor;
        return {p.family, p.model, p.stepping};
    }

private:
    std::shared_ptr<PlatformModel> _model;
};

}  // namespace sim
