// How long an hVL margin takes: the embedded machine's x16 links s0.G1
// (32 Gb/s) and s0.P1 (25 Gb/s), every lane, at a bit error rate of 10^-12
// with 5 errors allowed, over the platform model at a time scale of 10^7.
// The two links are different jobs and run at once, as the driver runs the
// jobs of one group. The nominal duration is model time, what the run would
// take on hardware; wall time is what it took here.
//
// The lower bound is what any walk needs on each side of each lane: the 50 ms
// scan offsets up to the first failing one (Top and Bottom retest that one
// in their second and third pass), and one offset at the full dwell, the last
// one that holds. The first failing offset is already known from the scan.
#include <chrono>
#include <cstdio>
#include <thread>

#include "discovery/port_mapping.h"
#include "hardware/gfx_accessor_maker.h"
#include "hardware/system_facts.h"
#include "margin_hvl/hvl_margin_handler.h"
#include "model_machine.h"
#include "simulator/hvl_phy_model.h"

using nlohmann::json;

namespace {

constexpr double kTimeScale = 1e7;
constexpr int kBer = 12, kErrCnt = 5;

struct Job {
    std::string link;
    double rate = 0;
    double nominal_s = 0, bound_s = 0;
    unsigned lanes_ok = 0, within_one_step = 0;
};

}  // namespace

int main() {
    ModelMachine machine(kTimeScale);
    const sim::Platform& platform = machine.platform;
    const auto& dies = machine.dies;
    const VEX_DIE_INFO& die0 = machine.die0;
    const auto links = sim::parse_hvl_links(platform.profile().hvl_links, platform.profile().sockets);

    std::vector<Job> jobs = {{"G1"}, {"P1"}};
    std::vector<std::thread> threads;
    const auto wall_start = std::chrono::steady_clock::now();
    for (Job& job : jobs) {
        threads.emplace_back([&job, &die0, &dies, &links, &platform] {
            HVLMarginHandler::InputParam p;
            p.die = die0;
            p.link = job.link;
            for (unsigned lane = 0; lane < 16; ++lane) p.lanes.push_back(lane);
            p.ber = kBer;
            p.err_cnt = kErrCnt;
            p.all_dies = dies;
            p.partner_finder = get_hvl_partner_finder(die0, dies);
            DumpHVLMarginDataToConsole console;
            json results = json::array();
            const auto start = system_facts().now();
            HVLMarginHandler(p).margin(console, results);
            job.nominal_s = std::chrono::duration<double>(system_facts().now() - start).count();

            job.rate = get_hvl_data_rate(die0, job.link, 0);
            const double dwell_s = HVLMarginHandler::dwell_ms(kBer, kErrCnt, job.rate) / 1000.0;
            const sim::HvlLinkProfile* profile = nullptr;
            for (const auto& link : links)
                if (link.end.socket == 0 && link.end.link == job.link) profile = &link;
            for (const json& lane : results) {
                const unsigned number = lane["LaneID"];
                const auto edges = sim::hvl_lane_edges(*profile, 0, number, platform.model().noise());
                const unsigned sides[4] = {edges.top, edges.bottom, edges.left, edges.right};
                const char* keys[4] = {"VoltTopOffset", "VoltBottomOffset", "PhaseLeftOffset", "PhaseRightOffset"};
                bool close = !lane.value("ErrorPresent", true);
                for (int side = 0; side < 4; ++side) {
                    const double scan = (sides[side] + 2 + (side < 2 ? 2 : 0)) * 0.05;
                    job.bound_s += scan + dwell_s;
                    close = close && std::abs(lane.value(keys[side], 999.0) - sides[side]) <= 1;
                }
                job.lanes_ok += !lane.value("ErrorPresent", true);
                job.within_one_step += close;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();

    std::printf("hVL margin, 16 lanes per link, BER 1e-%d, %d errors, links in parallel, time scale %.0e\n", kBer,
                kErrCnt, kTimeScale);
    std::printf("%-5s %8s %9s %12s %12s %7s %8s %8s\n", "link", "Gb/s", "dwell s", "nominal s", "bound s", "ratio",
                "lanes", "eye+-1");
    double longest = 0, longest_bound = 0;
    for (const Job& job : jobs) {
        std::printf("%-5s %8.1f %9.3f %12.1f %12.1f %7.3f %5u/16 %5u/16\n", job.link.c_str(), job.rate,
                    HVLMarginHandler::dwell_ms(kBer, kErrCnt, job.rate) / 1000.0, job.nominal_s, job.bound_s,
                    job.nominal_s / job.bound_s, job.lanes_ok, job.within_one_step);
        if (job.nominal_s > longest) {
            longest = job.nominal_s;
            longest_bound = job.bound_s;
        }
    }
    std::printf("batch: nominal %.1f s (the longer job), bound %.1f s, ratio %.3f; wall %.2f s\n", longest,
                longest_bound, longest / longest_bound, wall);
    set_system_facts(nullptr);
    set_gfx_accessor_maker(nullptr);
    return 0;
}
