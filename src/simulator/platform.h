// What the simulated service builds at start: a platform model from a
// profile, and the accessors and providers that put it behind the
// product's seams.
//
//   sim::Platform platform = sim::load_platform(path, seed, time_scale);
//   platform.install();                      // system facts, graphics accessors
//   auto read = platform.read_pci();         // hand to CRNFactory, detection...
//
// A bad profile throws sim::ProfileError with a text naming the field.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "hardware/gfx_accessor_maker.h"
#include "hardware/pci_access.h"
#include "hardware/system_facts.h"
#include "simulator/platform_model.h"
#include "simulator/profile.h"

namespace sim {

class Platform {
public:
    explicit Platform(std::shared_ptr<PlatformModel> model);

    std::shared_ptr<ReadPCI> read_pci() const { return _read; }
    std::shared_ptr<WritePCI> write_pci() const { return _write; }
    std::shared_ptr<SystemFacts> facts() const { return _facts; }
    // Graphics accessors onto the model's register spaces; never maps memory.
    GFXAccessorMaker gfx_accessor_maker() const;
    // Installs the facts provider and the graphics accessor maker process-wide.
    void install() const;

    PlatformModel& model() const { return *_model; }
    std::shared_ptr<PlatformModel> model_ptr() const { return _model; }
    const Profile& profile() const { return _model->profile(); }

private:
    std::shared_ptr<PlatformModel> _model;
    std::shared_ptr<ReadPCI> _read;
    std::shared_ptr<WritePCI> _write;
    std::shared_ptr<SystemFacts> _facts;
};

// An empty path gives the embedded default machine. A given seed replaces
// the profile's. time_scale must be above 0 (std::invalid_argument).
Platform load_platform(const std::string& profile_path, std::optional<uint64_t> seed = std::nullopt,
                       double time_scale = 1.0);
Platform make_platform(const Profile& profile, std::optional<uint64_t> seed = std::nullopt, double time_scale = 1.0);

}  // namespace sim
