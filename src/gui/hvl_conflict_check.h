// Two hVL tests conflict when they work on the same link: the same end, or
// the two ends of one link on two dies, which carry the same traffic.
#pragma once

#include <mutex>
#include <vector>

#include <nlohmann/json.hpp>

#include "discovery/hvl_links.h"
#include "hardware/vex_die_info.h"

class HVLConflictCheck {
public:
    static HVLConflictCheck& get_instance();
    // Keeps a copy of a non-empty die list; an empty one changes nothing.
    static void initalize(std::vector<VEX_DIE_INFO> dies);
    // Forgets the die list (tests).
    static void reset();

    // Whether a and b are the same end or the two ends of one link. An empty
    // partner_link is taken from the platform's table, so a die and a link
    // name are enough. A link the table doesn't wire has no other end and
    // conflicts only with itself; a partner_link the table contradicts
    // throws the partner finder's text. Before initalize prints "Error:
    // HVLConflictCheck not initalized" on standard error and throws
    // std::runtime_error with that text.
    bool check_if_conflict(const HVLLinkInfo& a, const HVLLinkInfo& b);

private:
    HVLConflictCheck() = default;
    void _initalize(std::vector<VEX_DIE_INFO> dies);

    std::mutex _mutex;
    std::vector<VEX_DIE_INFO> _dies;
    bool _initalized = false;
};

class GUIHVLCheckConflict {
public:
    // Compares the "HVLCtrlInfo" ("DeviceName": a die's full name, "SERDES":
    // its link) of two test records, the running one first. A die name not
    // in `dies` throws std::runtime_error "Error: Unable to find
    // GUIHVLCheckConflict::check_conflict die." rather than ending the
    // process: the scheduler then holds the queued test.
    bool check_conflict(const std::vector<VEX_DIE_INFO>& dies, const nlohmann::json& running,
                        const nlohmann::json& queued) const;
};
