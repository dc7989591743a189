// The simulated machine: every function's configuration space, the PCI
// Express links between ports and devices, and each die's on-chip register
// network behind its root functions' index/data pair.
//
// Configuration requests are routed as the hardware routes them: functions
// on a root bus are found by address; everything else is reached through
// the bus numbers that the bridges hold at that moment, and only over links
// that are up. Changing a bridge's bus numbers moves what lies below it, and
// a disabled link hides its device (it then reads all ones).
//
// All access is serialised by one mutex: every operation is short, and the
// waits of the callers happen outside it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "hardware/crn_accessor.h"
#include "hardware/pci_device_details.h"
#include "simulator/config_space.h"
#include "simulator/eye_sampler_model.h"
#include "simulator/link_model.h"
#include "simulator/model_clock.h"
#include "simulator/noise.h"
#include "simulator/profile.h"
#include "simulator/register_space.h"

namespace sim {

// Where a named register of a PCIe core lies on a die's network, from the
// chip's own register tables. port is empty for registers of the core as a
// whole. nullopt: the chip has no such register there.
using RegisterLocator = std::function<std::optional<uint32_t>(const std::string& name, const std::string& core,
                                                              std::optional<unsigned> port)>;

// The locator for a die type, made from the chip tables in src/hardware/chips.
RegisterLocator chip_register_locator(const std::string& die_type);

class LaneMarginingModel;

class PlatformModel : public std::enable_shared_from_this<PlatformModel> {
public:
    enum class Role { root_function, data_fabric, root_port, switch_upstream, switch_downstream, endpoint };

    // Throws ProfileError where the profile cannot be built (a core that the
    // chip tables don't know, for instance). A given locator replaces the one
    // made from the chip tables (tests).
    PlatformModel(const Profile& profile, double time_scale, std::optional<uint64_t> seed = std::nullopt,
                  RegisterLocator locator = nullptr);
    ~PlatformModel();
    PlatformModel(const PlatformModel&) = delete;
    PlatformModel& operator=(const PlatformModel&) = delete;

    // Configuration access. width is 1, 2 or 4; any alignment inside the
    // 4 KiB space. An absent function reads all ones and ignores writes; an
    // access past the end of the space leaves a 32-bit result as it was and
    // gives 0 for narrow ones, as the operating system's file does.
    void config_read(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset,
                     unsigned width, unsigned& value);
    void config_write(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset,
                      unsigned width, unsigned value);

    // Accessors keep the model alive when it is owned by a shared pointer;
    // otherwise the owner keeps it alive for as long as they are used.
    // A die's register network, directly (not through a root function).
    std::shared_ptr<CRNAccessor> die_accessor(unsigned socket, unsigned die);
    // The register space a graphics function's accessor reaches; made on
    // first use for any function and die selector.
    std::shared_ptr<CRNAccessor> gfx_accessor(const PCIDeviceDetails& function, unsigned die_selector);

    // Every function a full scan would find right now, in scan order.
    std::vector<PCIDeviceDetails> present_functions();

    ModelClock& clock() { return *_clock; }
    const Noise& noise() const { return _noise; }
    const Profile& profile() const { return _profile; }

    struct Function;
    struct Link;
    struct Die;

private:

    Function* _route(unsigned segment, unsigned bus, unsigned device, unsigned function, const ModelTime& now);
    Function* _route_below(Function& port, unsigned bus, unsigned device, unsigned function, const ModelTime& now);
    uint32_t _read(Function& f, unsigned offset, unsigned width, const ModelTime& now);
    void _write(Function& f, unsigned offset, unsigned width, uint32_t value, const ModelTime& now);
    void _write_lanes(Function& f, unsigned dword, uint32_t value, uint32_t byte_mask, const ModelTime& now);
    std::shared_ptr<CRNAccessor> _accessor(RegisterSpace& space);
    void _after_write(Function& f, unsigned dword, uint32_t old_value, uint32_t byte_mask, const ModelTime& now);
    void _sync(Function& f, const ModelTime& now);
    void _update_link(Link& link, const ModelTime& now);
    void _update_aspm(Link& link, const ModelTime& now);
    void _wake(Link& link, const ModelTime& now);
    void _retrain(Link& link, const ModelTime& now, bool from_down);
    void _train_to(Link& link, const ModelTime& now, unsigned speed, bool from_down);
    void _log_correctable(Link& link);
    void _on_margin_control(Function& f, unsigned lane, const ModelTime& now);
    PcieLaneEyes _pcie_lane_eyes();

    uint64_t _serial_number(size_t function);
    Function& _add_function(Role role, unsigned segment, unsigned bus, unsigned device, unsigned function);
    void _build_socket(const SocketProfile& socket, unsigned socket_number, const RegisterLocator& locator);
    Function& _build_port(const PortProfile& port, Role role, unsigned segment, unsigned bus);
    void _build_device(const DeviceProfile& device, Function& port, unsigned segment);
    struct PlacedPort;
    void _place_registers(Die& die, const SocketProfile& socket, const std::vector<PlacedPort>& ports,
                          const RegisterLocator& locator);

    Profile _profile;
    Noise _noise;
    std::unique_ptr<LaneMarginingModel> _margining;
    std::unique_ptr<ModelClock> _clock;
    std::mutex _mutex;
    std::vector<std::unique_ptr<Function>> _functions;
    std::vector<std::unique_ptr<Link>> _links;
    std::vector<std::unique_ptr<Die>> _dies;
    std::map<std::tuple<unsigned, unsigned, unsigned, unsigned>, Function*> _fixed;  // root-bus functions
    std::vector<Function*> _root_ports;
    std::map<const PortProfile*, LinkFaults> _link_faults;
    uint64_t _devices_built = 0;
    std::map<std::tuple<unsigned, unsigned, unsigned, unsigned, unsigned>, std::unique_ptr<RegisterSpace>> _gfx_spaces;
};

}  // namespace sim
