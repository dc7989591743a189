// hVL links: which links of which dies are wired to each other, what the
// link at the other end is, and what rate a link runs at. The wiring is a
// fixed table per platform (hardware/chips/hvl_links.h); lane order and
// rate come from the link's hVL PCS.
//
// The tables join sockets 0 and 1 of the two-socket Corvane and Dellmar
// machines; a single die has no socket-to-socket link, so its list is empty.
// Both ends of every link are listed, and the partner of either end is found.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hardware/chips/hvl_links.h"
#include "hardware/vex_die_info.h"

// One end of an hVL link.
struct HVLLinkInfo {
    VEX_DIE_INFO die;
    std::string link;
    std::string partner_link;  // the name the same link has at the other die

    // Only the die's full name counts of the die.
    bool operator==(const HVLLinkInfo& other) const;
};

using HVLLinkPair = std::pair<HVLLinkInfo, HVLLinkInfo>;

class GenerateHVLLinkInfoList {
public:
    // Every end of every wired link among the dies, the two ends of a link
    // one after the other.
    virtual std::vector<HVLLinkInfo> operator()() = 0;
    // Bit kHvlLaneReversedBit of the link's "PCS_HVL3X16_PCS_STATUS1".
    virtual bool is_lane_reversed(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane);
    virtual ~GenerateHVLLinkInfoList() = default;

    // After operator(): each link as (end, other end) and again the other
    // way round, so either end finds its partner.
    const std::vector<HVLLinkPair>& get_pairs() const { return _pairs; }

protected:
    explicit GenerateHVLLinkInfoList(std::vector<VEX_DIE_INFO> dies) : _dies(std::move(dies)) {}
    // Lists the rows whose two dies are among `kept`, by socket and die
    // number. With missing_die_error set, a row naming a die that isn't
    // there prints it on standard error and is left out.
    std::vector<HVLLinkInfo> _walk(const std::vector<chips::HvlLinkRow>& rows, const std::vector<VEX_DIE_INFO>& kept,
                                   const char* missing_die_error);

    std::vector<VEX_DIE_INFO> _dies;
    std::vector<HVLLinkPair> _pairs;
};

// Corvane and Dellmar dies, by the Corvane or the Dellmar table.
class GenerateHVLLinkInfoListCorvane : public GenerateHVLLinkInfoList {
public:
    explicit GenerateHVLLinkInfoListCorvane(std::vector<VEX_DIE_INFO> dies);
    std::vector<HVLLinkInfo> operator()() override;
};

// KX900A and KX900C dies; the table follows the number of sockets seen.
class GenerateHVLLinkInfoListKX900A : public GenerateHVLLinkInfoList {
public:
    explicit GenerateHVLLinkInfoListKX900A(std::vector<VEX_DIE_INFO> dies);
    std::vector<HVLLinkInfo> operator()() override;
};

// KX900X dies; the table follows the number of devices seen.
class GenerateHVLLinkInfoListKX900XO : public GenerateHVLLinkInfoList {
public:
    explicit GenerateHVLLinkInfoListKX900XO(std::vector<VEX_DIE_INFO> dies);
    std::vector<HVLLinkInfo> operator()() override;
};

class FindHVLPartner {
public:
    // The other end of `link`. Throws std::runtime_error when the link isn't
    // one of the platform's wired links.
    virtual HVLLinkInfo operator()(const HVLLinkInfo& link) = 0;
    virtual ~FindHVLPartner() = default;

protected:
    FindHVLPartner(std::vector<HVLLinkPair> pairs, const char* error) : _pairs(std::move(pairs)), _error(error) {}
    HVLLinkInfo _find(const HVLLinkInfo& link) const;

    std::vector<HVLLinkPair> _pairs;
    const char* _error;
};

// Throws "Error in FindHVLPartnerCorvane." for a link it doesn't hold.
class FindHVLPartnerCorvane : public FindHVLPartner {
public:
    explicit FindHVLPartnerCorvane(const std::vector<VEX_DIE_INFO>& dies);
    HVLLinkInfo operator()(const HVLLinkInfo& link) override;
};

// Throws "Error in FindHVLPartnerKX900A.".
class FindHVLPartnerKX900A : public FindHVLPartner {
public:
    explicit FindHVLPartnerKX900A(const std::vector<VEX_DIE_INFO>& dies);
    HVLLinkInfo operator()(const HVLLinkInfo& link) override;
};

// Throws "Error in FindHVLPartnerKX900XO.".
class FindHVLPartnerKX900XO : public FindHVLPartner {
public:
    explicit FindHVLPartnerKX900XO(const std::vector<VEX_DIE_INFO>& dies);
    HVLLinkInfo operator()(const HVLLinkInfo& link) override;
};

// "Corvane", "Dellmar": the Corvane classes; "KX900A", "KX900C": the KX900A
// classes; "KX900X": the KX900XO classes. Any other die throws
// "Error in get_hvl_info_list_generator. Did not handle " (or
// get_hvl_partner_finder) and the name.
std::shared_ptr<GenerateHVLLinkInfoList> get_hvl_info_list_generator(const VEX_DIE_INFO& die,
                                                                      const std::vector<VEX_DIE_INFO>& dies);
std::shared_ptr<FindHVLPartner> get_hvl_partner_finder(const VEX_DIE_INFO& die, const std::vector<VEX_DIE_INFO>& dies);

// The rate of a link in Gb/s, from the P-state it runs in (see
// chips::hvl_data_rate_gbps). A word size code that names no word size
// prints "Error: check settings, seems like there is mismatch on word size
// ***" on standard error and gives 0; so does a PCS that runs no hVL.
class DataRateHVL {
public:
    virtual ~DataRateHVL() = default;
    virtual double get_data_rate(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane) = 0;
};

class DataRateCorvaneHVL : public DataRateHVL {
public:
    double get_data_rate(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane) override;
};

// The KX900 and KX800 PCS keeps the same P-state registers; lookups fail
// with the register store's text until the chip's register map holds them.
class DataRateKx900aHVL : public DataRateHVL {
public:
    double get_data_rate(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane) override;
};

// "Corvane", "Dellmar": DataRateCorvaneHVL; "KX900C", "KX900A", "KX900X",
// "KX800": DataRateKx900aHVL; else throws "Error in get_hvl_data_rate. Did
// not handle " and the name.
double get_hvl_data_rate(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane);

// One wired link as the hardware reports it, for listings.
struct HVLLinkSummary {
    HVLLinkInfo end;      // the end met first in the platform's table
    HVLLinkInfo partner;  // the other end
    double data_rate = 0;  // Gb/s, of `end`'s PCS
    bool lane_reversed = false;
    std::string error;  // why rate or lane order couldn't be read; empty when they were
};

// Every wired link among the dies once, in table order. Dies of platforms
// without hVL are passed over.
std::vector<HVLLinkSummary> summarise_hvl_links(const std::vector<VEX_DIE_INFO>& dies);
