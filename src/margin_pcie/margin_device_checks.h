// Whether a function can be margined at all: a link at 16 or 32 GT/s whose
// width can be read, the Lane Margining at the Receiver capability, and
// power state D0. The margin engine runs this first; the device lists use it
// to offer only functions that can be margined.
#pragma once

#include <string>

#include "discovery/pci_capability.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

namespace PCIE {

class MarginDeviceChecks {
public:
    // Not owned; they outlive the object.
    struct InParams {
        ReadPCI& read;
        DetectThisPCIECapability& capability;
        DetectThisPCIEExtendedCapability& extended_capability;
    };

    MarginDeviceChecks(Device_ID device, InParams in);

    // True when the function can be margined; otherwise err says why. A
    // reader that fails puts its own text into err. The ASPM state is read
    // only to make sure the link control register answers; any state passes.
    bool run_pre_check(std::string& err) const;

private:
    Device_ID _device;
    InParams _in;
};

}  // namespace PCIE
