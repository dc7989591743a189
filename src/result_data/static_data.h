// Facts about the machine that every report row carries: name, NUMA mode,
// silicon revisions, secure state and topology, plus the operator's own
// header and value pairs ("spare" data), all in one process-wide map.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "hardware/vex_die_info.h"

class StaticDataHandler {
public:
    static StaticDataHandler& get();

    // Stores the value, replacing an older one under the same name.
    void set_static_fields(const std::string& name, const std::string& value);
    // A copy, in key order (the order report columns take).
    std::map<std::string, std::string> get_static_fields_map() const;

private:
    StaticDataHandler() = default;

    mutable std::mutex _mutex;
    std::map<std::string, std::string> _fields;
};

// Collects the static fields from the die list. Test threads call it at
// their start; several may run at once and the last writer wins.
//
// Dies named KX900A, KX900C or KX900X count as graphics silicon and every
// other CPU die as processor silicon. Several dies' revision words are
// joined in (socket, die) order as "0x%08X" words separated by "_" (no
// comma or blank, so the value stays one CSV cell). A kind is "Secure" only
// when all its dies are. A kind without dies gives "Not Available". Host
// name and NUMA count come from the system-facts provider, never a shell.
class StaticDataUtility {
public:
    explicit StaticDataUtility(std::vector<VEX_DIE_INFO> dies);

    // "NPS", "SystemName", "CPU/GPU SiliconRev", "CPU/GPU SecureStatus",
    // then the topology fields, in that order.
    void update_static_data();
    // Each pair through set_static_fields, so a spare key may replace a
    // static field of the same name.
    void update_spare_data(const std::map<std::string, std::string>& spare);

private:
    void _set_nps_mode();
    void _set_system_name();
    void _set_silicon_rev();
    void _set_secure_status();
    void _set_topology();

    std::vector<VEX_DIE_INFO> _dies;
};
