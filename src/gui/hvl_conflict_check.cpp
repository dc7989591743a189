#include "gui/hvl_conflict_check.h"

#include <iostream>
#include <stdexcept>

using nlohmann::json;

namespace {

constexpr const char* kNotInitalized = "Error: HVLConflictCheck not initalized";

HVLLinkInfo link_of(const std::vector<VEX_DIE_INFO>& dies, const json& test) {
    const json& info = test.at("HVLCtrlInfo");
    const std::string name = info.at("DeviceName").get<std::string>();
    for (const auto& die : dies)
        if (die.full_name() == name) return HVLLinkInfo{die, info.at("SERDES").get<std::string>(), ""};
    throw std::runtime_error("Error: Unable to find GUIHVLCheckConflict::check_conflict die.");
}

// Records and jobs name a die and a link only; the partner's name comes
// from the platform's table.
HVLLinkInfo with_partner(HVLLinkInfo info, const std::vector<HVLLinkInfo>& ends) {
    if (!info.partner_link.empty()) return info;
    for (const auto& end : ends)
        if (end.die.full_name() == info.die.full_name() && end.link == info.link) {
            info.partner_link = end.partner_link;
            break;
        }
    return info;
}

}  // namespace

HVLConflictCheck& HVLConflictCheck::get_instance() {
    static HVLConflictCheck instance;
    return instance;
}

void HVLConflictCheck::initalize(std::vector<VEX_DIE_INFO> dies) { get_instance()._initalize(std::move(dies)); }

void HVLConflictCheck::reset() {
    HVLConflictCheck& instance = get_instance();
    std::lock_guard<std::mutex> lock(instance._mutex);
    instance._dies.clear();
    instance._initalized = false;
}

void HVLConflictCheck::_initalize(std::vector<VEX_DIE_INFO> dies) {
    if (dies.empty()) return;
    std::lock_guard<std::mutex> lock(_mutex);
    _dies = std::move(dies);
    _initalized = true;
}

bool HVLConflictCheck::check_if_conflict(const HVLLinkInfo& a, const HVLLinkInfo& b) {
    std::vector<VEX_DIE_INFO> dies;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (!_initalized) {
            std::cerr << kNotInitalized << std::endl;
            throw std::runtime_error(kNotInitalized);
        }
        dies = _dies;
    }
    const auto generator = get_hvl_info_list_generator(a.die, dies);
    const auto finder = get_hvl_partner_finder(a.die, dies);
    const std::vector<HVLLinkInfo> ends = (*generator)();
    const HVLLinkInfo first = with_partner(a, ends);
    const HVLLinkInfo second = with_partner(b, ends);
    if (first == second) return true;
    // A link the platform doesn't wire has no other end to meet.
    if (first.partner_link.empty()) return false;
    return (*finder)(first) == second;
}

bool GUIHVLCheckConflict::check_conflict(const std::vector<VEX_DIE_INFO>& dies, const json& running,
                                         const json& queued) const {
    return HVLConflictCheck::get_instance().check_if_conflict(link_of(dies, running), link_of(dies, queued));
}
