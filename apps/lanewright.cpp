// The service on real hardware. It takes no arguments: everything it needs is
// found on the machine.
#include "service/service_main.h"

int main() {
    ServiceOptions options;
    options.results_root = "/lanewright_gui";
    return run_service(options);
}
