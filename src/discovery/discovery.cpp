// The discovery library grows with PCI detection, dies, ports, lanes and links.
#include "hardware/pci_device_details.h"
#include "hardware/vex_die_info.h"
