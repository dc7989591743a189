// Start-up, serving and shutdown of the service, shared by both executables.
#pragma once

#include <memory>
#include <string>

#include "hardware/pci_access.h"

struct ServiceOptions {
    unsigned long port = 9970;
    // The result archive's root.
    std::string results_root = "/lanewright_gui";
    // Front-end files; empty means the "UI" folder beside the executable.
    std::string ui_folder;
    // The machine's configuration space; the real sysfs accessors when empty.
    std::shared_ptr<ReadPCI> read;
    std::shared_ptr<WritePCI> write;
};

// Runs the service until "/stop", SIGINT or SIGTERM. Returns the exit code.
int run_service(const ServiceOptions& options);
