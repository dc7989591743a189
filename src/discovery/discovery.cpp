// The discovery library grows with PCI detection, dies, ports, lanes and links.
#include "discovery/pci_device_details.h"
#include "discovery/vex_die_info.h"
