#include "simulator/platform.h"

#include <cmath>
#include <stdexcept>

#include "simulator/model_access.h"

namespace sim {

Platform::Platform(std::shared_ptr<PlatformModel> model)
    : _model(std::move(model)),
      _read(std::make_shared<ModelReadPCI>(_model)),
      _write(std::make_shared<ModelWritePCI>(_model)),
      _facts(std::make_shared<ModelSystemFacts>(_model)) {}

GFXAccessorMaker Platform::gfx_accessor_maker() const {
    std::shared_ptr<PlatformModel> model = _model;
    return [model](const PCIDeviceDetails& function, bool, unsigned int die_selector) {
        return model->gfx_accessor(function, die_selector);
    };
}

void Platform::install() const {
    set_system_facts(_facts);
    set_gfx_accessor_maker(gfx_accessor_maker());
}

Platform make_platform(const Profile& profile, std::optional<uint64_t> seed, double time_scale) {
    if (!(time_scale > 0) || !std::isfinite(time_scale))
        throw std::invalid_argument("time scale must be a number above 0");
    return Platform(std::make_shared<PlatformModel>(profile, time_scale, seed));
}

Platform load_platform(const std::string& profile_path, std::optional<uint64_t> seed, double time_scale) {
    const Profile profile =
        profile_path.empty() ? parse_profile_text(default_profile_text()) : load_profile_file(profile_path);
    return make_platform(profile, seed, time_scale);
}

}  // namespace sim
