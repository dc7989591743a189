// How graphics-function register accessors are made. On hardware the maker
// maps the function's register aperture from physical memory; the platform
// model installs a maker that answers from its own register space, so the
// simulated service never opens physical memory. Die detection and
// CRNFactory both build their graphics accessors only through this seam.
#pragma once

#include <functional>
#include <memory>

#include "hardware/crn_accessor.h"
#include "hardware/pci_device_details.h"

// kx900_style chooses the accessor class; die_selector is the die number on
// the device (0 for single-die devices).
using GFXAccessorMaker =
    std::function<std::shared_ptr<CRNAccessor>(const PCIDeviceDetails& function, bool kx900_style,
                                               unsigned int die_selector)>;

// Installs the process-wide maker; an empty function restores the real one.
void set_gfx_accessor_maker(GFXAccessorMaker maker);

// The installed maker (the real one until another is installed).
const GFXAccessorMaker& gfx_accessor_maker();
