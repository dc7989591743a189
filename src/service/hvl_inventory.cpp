#include "service/hvl_inventory.h"

#include <sstream>

#include "discovery/hvl_links.h"

namespace {

std::string end_text(const HVLLinkInfo& end) {
    return "socket " + std::to_string(end.die.socket()) + " die " + std::to_string(end.die.die()) + " " + end.link;
}

}  // namespace

std::vector<std::string> hvl_inventory_lines(const std::vector<VEX_DIE_INFO>& dies) {
    const auto links = summarise_hvl_links(dies);
    std::vector<std::string> lines{"hVL links: " + std::to_string(links.size())};
    for (const auto& link : links) {
        std::ostringstream line;
        line << "  " << end_text(link.end) << " <-> " << end_text(link.partner) << "  ";
        if (!link.error.empty())
            line << "unreadable: " << link.error;
        else if (link.data_rate <= 0)
            line << "not running";
        else
            line << link.data_rate << " Gb/s" << (link.lane_reversed ? "  lanes reversed" : "");
        lines.push_back(line.str());
    }
    return lines;
}
