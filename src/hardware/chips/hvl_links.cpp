#include "hardware/chips/hvl_links.h"

#include <cmath>
#include <iterator>

namespace chips {

namespace {

std::vector<HvlLinkRow> socket_pairs(std::initializer_list<std::pair<const char*, const char*>> links) {
    std::vector<HvlLinkRow> rows;
    for (const auto& [link, partner] : links) rows.push_back({0, 0, link, 1, 0, partner});
    return rows;
}

constexpr unsigned int kKx900DiesPerSocket = 4;

// Die d's G0 meets die d+1's G2, round the four dies of one socket or device.
void add_ring(std::vector<HvlLinkRow>& rows, unsigned int socket) {
    for (unsigned int die = 0; die < kKx900DiesPerSocket; ++die)
        rows.push_back({socket, die, "G0", socket, (die + 1) % kKx900DiesPerSocket, "G2"});
}

}  // namespace

const std::vector<HvlLinkRow>& corvane_hvl_links() {
    static const std::vector<HvlLinkRow> rows = socket_pairs({{"G0", "G2"}, {"G1", "G3"}, {"P1", "P3"}, {"P0", "P2"}});
    return rows;
}

const std::vector<HvlLinkRow>& dellmar_hvl_links() {
    static const std::vector<HvlLinkRow> rows =
        socket_pairs({{"P0", "P0"}, {"P1", "P3"}, {"P3", "P1"}, {"G0", "G2"}, {"G2", "G0"}, {"G1", "G3"}});
    return rows;
}

std::vector<HvlLinkRow> kx900a_hvl_links(unsigned int sockets) {
    std::vector<HvlLinkRow> rows;
    for (unsigned int socket = 0; socket < sockets; ++socket) {
        add_ring(rows, socket);
        rows.push_back({socket, 0, "G1", socket, 2, "G1"});
        rows.push_back({socket, 1, "G1", socket, 3, "G1"});
    }
    if (sockets >= 2)
        for (unsigned int die = 0; die < kKx900DiesPerSocket; ++die) rows.push_back({0, die, "G3", 1, die, "G3"});
    return rows;
}

std::vector<HvlLinkRow> kx900xo_hvl_links(unsigned int devices) {
    std::vector<HvlLinkRow> rows;
    for (unsigned int device = 0; device < devices; ++device) add_ring(rows, device);
    for (unsigned int device = 0; device + 1 < devices; device += 2)
        for (unsigned int die = 0; die < kKx900DiesPerSocket; ++die)
            rows.push_back({device, die, "G1", device + 1, die, "G1"});
    return rows;
}

std::optional<double> hvl_data_rate_gbps(unsigned int pstate_select, unsigned int pstate_context2) {
    const unsigned int pstate = pstate_select & kHvlPstateSelectMask;
    const unsigned int context = (pstate_context2 >> (8 * pstate)) & 0xFF;
    const unsigned int code = context >> kHvlWordSizeShift;
    if (code >= std::size(kHvlWordSizes)) return std::nullopt;
    return kHvlWordSizes[code] * (context & kHvlWordClockMask) * kHvlWordClockStepGHz;
}

std::optional<unsigned int> hvl_pstate_context_byte(double gbps) {
    for (unsigned int code = std::size(kHvlWordSizes); code-- > 0;) {
        const double steps = gbps / (kHvlWordSizes[code] * kHvlWordClockStepGHz);
        const double whole = std::round(steps);
        if (whole >= 1 && whole <= kHvlWordClockMask && std::fabs(steps - whole) < 1e-9)
            return code << kHvlWordSizeShift | static_cast<unsigned int>(whole);
    }
    return std::nullopt;
}

}  // namespace chips
