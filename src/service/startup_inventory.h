// What the service found at start-up, in a form a user reads at a glance:
// the PCI functions, the dies with their socket and die numbers, and the
// PCIe ports with their bus ranges and links.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "hardware/vex_die_info.h"

std::vector<std::string> inventory_lines(const std::vector<PCIDeviceDetails>& devices,
                                         const std::vector<VEX_DIE_INFO>& dies, std::shared_ptr<ReadPCI> read);

// Prints the lines on standard output and writes them to the log.
void print_inventory(const std::vector<std::string>& lines);
