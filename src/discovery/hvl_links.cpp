#include "discovery/hvl_links.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <stdexcept>

#include "discovery/die_detection.h"
#include "hardware/register_storage.h"
#include "hardware/resource_lock.h"

namespace {

const VEX_DIE_INFO* find_die(const std::vector<VEX_DIE_INFO>& dies, unsigned int socket, unsigned int die) {
    for (const auto& candidate : dies)
        if (candidate.socket() == socket && candidate.die() == die) return &candidate;
    return nullptr;
}

// Sockets (or devices) 0 .. the highest one present.
unsigned int socket_count(const std::vector<VEX_DIE_INFO>& dies) {
    unsigned int count = 0;
    for (const auto& die : dies) count = std::max(count, die.socket() + 1);
    return count;
}

void print_error(const std::string& text) {
    NamedLockGuard console("ConsoleLock");
    std::cerr << text;
}

double read_pstate_data_rate(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane) {
    const auto store = get_register_store(die);
    const unsigned int select = store->get_link_pcs_register("PCS_HVL3X16_PCS_PSTATE_SELECT", link, lane)->read();
    const unsigned int context = store->get_link_pcs_register("PCS_HVL3X16_PCS_PSTATE_CONTEXT2", link, lane)->read();
    const auto rate = chips::hvl_data_rate_gbps(select, context);
    if (!rate) {
        print_error("Error: check settings, seems like there is mismatch on word size ***\n");
        return 0;
    }
    return *rate;
}

}  // namespace

bool HVLLinkInfo::operator==(const HVLLinkInfo& other) const {
    return die.full_name() == other.die.full_name() && link == other.link && partner_link == other.partner_link;
}

bool GenerateHVLLinkInfoList::is_lane_reversed(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane) {
    const unsigned int status = get_register_store(die)->get_link_pcs_register("PCS_HVL3X16_PCS_STATUS1", link, lane)->read();
    return (status >> chips::kHvlLaneReversedBit) & 1;
}

std::vector<HVLLinkInfo> GenerateHVLLinkInfoList::_walk(const std::vector<chips::HvlLinkRow>& rows,
                                                        const std::vector<VEX_DIE_INFO>& kept,
                                                        const char* missing_die_error) {
    _pairs.clear();
    std::vector<HVLLinkInfo> result;
    for (const auto& row : rows) {
        const VEX_DIE_INFO* die = find_die(kept, row.socket, row.die);
        const VEX_DIE_INFO* partner = find_die(kept, row.partner_socket, row.partner_die);
        if (!die || !partner) {
            if (missing_die_error) print_error(std::string(missing_die_error) + "\n");
            continue;
        }
        HVLLinkInfo end{*die, row.link, row.partner_link};
        HVLLinkInfo other{*partner, row.partner_link, row.link};
        result.push_back(end);
        result.push_back(other);
        _pairs.emplace_back(end, other);
        _pairs.emplace_back(other, end);
    }
    return result;
}

GenerateHVLLinkInfoListCorvane::GenerateHVLLinkInfoListCorvane(std::vector<VEX_DIE_INFO> dies)
    : GenerateHVLLinkInfoList(std::move(dies)) {}

std::vector<HVLLinkInfo> GenerateHVLLinkInfoListCorvane::operator()() {
    const auto kept = DetectVEXDies::filter_die(_dies, std::vector<std::string>{"Corvane", "Dellmar"});
    if (kept.size() < 2) return _walk({}, kept, nullptr);
    const auto& rows = kept.front().name() == "Corvane" ? chips::corvane_hvl_links() : chips::dellmar_hvl_links();
    return _walk(rows, kept, nullptr);
}

GenerateHVLLinkInfoListKX900A::GenerateHVLLinkInfoListKX900A(std::vector<VEX_DIE_INFO> dies)
    : GenerateHVLLinkInfoList(std::move(dies)) {}

std::vector<HVLLinkInfo> GenerateHVLLinkInfoListKX900A::operator()() {
    const auto kept = DetectVEXDies::filter_die(_dies, std::vector<std::string>{"KX900A", "KX900C"});
    return _walk(chips::kx900a_hvl_links(socket_count(kept)), kept,
                 "Error: Unable to find KX900a die by socket and die.");
}

GenerateHVLLinkInfoListKX900XO::GenerateHVLLinkInfoListKX900XO(std::vector<VEX_DIE_INFO> dies)
    : GenerateHVLLinkInfoList(std::move(dies)) {}

std::vector<HVLLinkInfo> GenerateHVLLinkInfoListKX900XO::operator()() {
    const auto kept = DetectVEXDies::filter_die(_dies, "KX900X");
    return _walk(chips::kx900xo_hvl_links(socket_count(kept)), kept,
                 "Error: Unable to find KX900a die by socket and die.");
}

HVLLinkInfo FindHVLPartner::_find(const HVLLinkInfo& link) const {
    for (const auto& [end, other] : _pairs)
        if (end == link) return other;
    throw std::runtime_error(_error);
}

namespace {

template <typename Generator>
std::vector<HVLLinkPair> pairs_of(const std::vector<VEX_DIE_INFO>& dies) {
    Generator generator(dies);
    generator();
    return generator.get_pairs();
}

}  // namespace

FindHVLPartnerCorvane::FindHVLPartnerCorvane(const std::vector<VEX_DIE_INFO>& dies)
    : FindHVLPartner(pairs_of<GenerateHVLLinkInfoListCorvane>(dies), "Error in FindHVLPartnerCorvane.") {}
HVLLinkInfo FindHVLPartnerCorvane::operator()(const HVLLinkInfo& link) { return _find(link); }

FindHVLPartnerKX900A::FindHVLPartnerKX900A(const std::vector<VEX_DIE_INFO>& dies)
    : FindHVLPartner(pairs_of<GenerateHVLLinkInfoListKX900A>(dies), "Error in FindHVLPartnerKX900A.") {}
HVLLinkInfo FindHVLPartnerKX900A::operator()(const HVLLinkInfo& link) { return _find(link); }

FindHVLPartnerKX900XO::FindHVLPartnerKX900XO(const std::vector<VEX_DIE_INFO>& dies)
    : FindHVLPartner(pairs_of<GenerateHVLLinkInfoListKX900XO>(dies), "Error in FindHVLPartnerKX900XO.") {}
HVLLinkInfo FindHVLPartnerKX900XO::operator()(const HVLLinkInfo& link) { return _find(link); }

std::shared_ptr<GenerateHVLLinkInfoList> get_hvl_info_list_generator(const VEX_DIE_INFO& die,
                                                                      const std::vector<VEX_DIE_INFO>& dies) {
    const std::string name = die.name();
    if (name == "Corvane" || name == "Dellmar") return std::make_shared<GenerateHVLLinkInfoListCorvane>(dies);
    if (name == "KX900A" || name == "KX900C") return std::make_shared<GenerateHVLLinkInfoListKX900A>(dies);
    if (name == "KX900X") return std::make_shared<GenerateHVLLinkInfoListKX900XO>(dies);
    throw std::runtime_error("Error in get_hvl_info_list_generator. Did not handle " + name);
}

std::shared_ptr<FindHVLPartner> get_hvl_partner_finder(const VEX_DIE_INFO& die, const std::vector<VEX_DIE_INFO>& dies) {
    const std::string name = die.name();
    if (name == "Corvane" || name == "Dellmar") return std::make_shared<FindHVLPartnerCorvane>(dies);
    if (name == "KX900A" || name == "KX900C") return std::make_shared<FindHVLPartnerKX900A>(dies);
    if (name == "KX900X") return std::make_shared<FindHVLPartnerKX900XO>(dies);
    throw std::runtime_error("Error in get_hvl_partner_finder. Did not handle " + name);
}

double DataRateCorvaneHVL::get_data_rate(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane) {
    return read_pstate_data_rate(die, link, lane);
}

double DataRateKx900aHVL::get_data_rate(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane) {
    return read_pstate_data_rate(die, link, lane);
}

double get_hvl_data_rate(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane) {
    const std::string name = die.name();
    if (name == "Corvane" || name == "Dellmar") return DataRateCorvaneHVL().get_data_rate(die, link, lane);
    if (name == "KX900C" || name == "KX900A" || name == "KX900X" || name == "KX800")
        return DataRateKx900aHVL().get_data_rate(die, link, lane);
    throw std::runtime_error("Error in get_hvl_data_rate. Did not handle " + name);
}

std::vector<HVLLinkSummary> summarise_hvl_links(const std::vector<VEX_DIE_INFO>& dies) {
    std::vector<HVLLinkSummary> result;
    std::set<std::pair<std::string, std::string>> listed;  // (die full name, link) of ends already shown
    for (const auto& die : dies) {
        std::shared_ptr<GenerateHVLLinkInfoList> generator;
        try {
            generator = get_hvl_info_list_generator(die, dies);
        } catch (const std::runtime_error&) {
            continue;  // a platform without hVL
        }
        (*generator)();
        for (const auto& [end, partner] : generator->get_pairs()) {
            if (!listed.insert({end.die.full_name(), end.link}).second) continue;
            listed.insert({partner.die.full_name(), partner.link});
            HVLLinkSummary summary{end, partner, 0, false, ""};
            try {
                summary.data_rate = get_hvl_data_rate(end.die, end.link, 0);
                summary.lane_reversed = generator->is_lane_reversed(end.die, end.link, 0);
            } catch (const std::exception& error) {
                summary.error = error.what();
            }
            result.push_back(std::move(summary));
        }
    }
    return result;
}
