#include "margin_hvl/hvl_margin_batch.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <thread>

#include "hardware/atomic_file.h"
#include "hardware/os_specific.h"
#include "hardware/system_facts.h"
#include "hardware/time_format.h"
#include "margin_hvl/hvl_link_operations.h"
#include "result_data/data_handler.h"

using nlohmann::json;

namespace {

bool same_end(const VEX_DIE_INFO& die_a, const std::string& link_a, const VEX_DIE_INFO& die_b,
              const std::string& link_b) {
    return die_a.full_name() == die_b.full_name() && link_a == link_b;
}

// The two jobs drive one link: the same end, or its two ends.
bool conflict(const DIELinkLanes& a, const DIELinkLanes& b, const std::vector<VEX_DIE_INFO>& dies) {
    if (same_end(a.die, a.link, b.die, b.link)) return true;
    const auto partner = find_hvl_partner_end(a.die, a.link, dies);
    return partner && same_end(partner->die, partner->link, b.die, b.link);
}

bool is_texl(const std::string& link) { return link == "P5" || link == "TEXLPCS"; }

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string clock_text(std::chrono::system_clock::time_point when) {
    const std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm tm{};
    localtime_r(&t, &tm);
    std::ostringstream out;
    out << std::put_time(&tm, "%Y-%m-%d %H:%M:%S");
    return out.str();
}

}  // namespace

bool group_hvl_jobs(const std::vector<DIELinkLanes>& jobs, const std::vector<VEX_DIE_INFO>& dies,
                    std::vector<std::vector<size_t>>& groups, std::string& error) {
    groups.assign(2, {});
    for (size_t i = 0; i < jobs.size(); ++i) {
        bool placed = false;
        for (auto& group : groups) {
            const bool meets = std::any_of(group.begin(), group.end(),
                                           [&](size_t j) { return conflict(jobs[i], jobs[j], dies); });
            if (meets) continue;
            group.push_back(i);
            placed = true;
            break;
        }
        if (!placed) {
            error = "Error: Unexpected scenario in do_hvl_margin";
            std::cerr << error << std::endl;
            return false;
        }
    }
    return true;
}

int do_hvl_margin(const std::vector<SerdesLaneSectionParam>& lanes, bool all_links, const std::vector<VEX_DIE_INFO>& dies,
                  const HvlBatchSettings& settings, std::string& error, std::string* csv_path) {
    bool texl = !all_links && std::all_of(lanes.begin(), lanes.end(), [](const auto& l) { return is_texl(l.link); });
    std::vector<DIELinkLanes> jobs;
    if (all_links) {
        texl = false;
        for (const VEX_DIE_INFO& die : dies)
            for (const auto& status : CorvaneHVLLinkStatus(die)()) {
                DIELinkLanes job{die, status.link, {}};
                for (unsigned int lane = 0; lane < 16; ++lane) job.lanes.push_back(lane);
                jobs.push_back(job);
            }
    } else {
        for (const auto& entry : lanes) jobs.push_back({entry.die, entry.link, entry.lanes});
    }
    std::vector<std::vector<size_t>> groups;
    if (!group_hvl_jobs(jobs, dies, groups, error)) return 0;

    for (const VEX_DIE_INFO& die : dies) {
        std::string ignored;
        disable_power_states_for_hvl(die, ignored);
        E32DisableODT(die, "");
    }

    const std::string ts = time_stamp();
    std::string folder, base;
    if (all_links) {
        folder = "margin_all_hvl";
        base = folder + "/hvl_margin_all_" + ts;
    } else {
        folder = ts;
        base = folder + (texl ? "/texl_margin" : "/hvl_margin");
    }
    const std::filesystem::path root(settings.output_root);
    std::error_code made;
    std::filesystem::create_directories(root / folder, made);
    if (made) {
        error = "Unable to make " + (root / folder).string() + ": " + made.message();
        return 0;
    }
    std::ostringstream csv, bin;
    auto csv_handler = DataHandlerCreator::get_data_handler(HVL_DATA_HANDLER, DUMP_MODE_PLAIN, texl);
    auto bin_handler = DataHandlerCreator::get_data_handler(HVL_DATA_HANDLER, DUMP_MODE_INTERNAL, texl);
    csv_handler->dump_header(csv);
    bin_handler->dump_header(bin);

    std::cout << "Device selected for margining:" << std::endl;
    for (const auto& job : jobs)
        std::cout << "  Socket:" << job.die.socket() << " Die:" << job.die.die() << " Link:" << job.link << std::endl;
    const auto start = system_facts().now();
    for (const auto& group : groups) {
        if (group.empty()) continue;
        std::vector<json> results(group.size(), json::array());
        std::vector<std::thread> threads;
        for (size_t i = 0; i < group.size(); ++i) {
            HVLMarginHandler::InputParam p;
            static_cast<DIELinkLanes&>(p) = jobs[group[i]];
            p.ber = settings.ber;
            p.dwell_time = settings.dwell_time;
            p.err_cnt = settings.err_cnt;
            p.max_volt_steps = settings.max_volt_steps;
            p.max_timing_steps = settings.max_timing_steps;
            p.all_dies = dies;
            try {
                p.partner_finder = get_hvl_partner_finder(p.die, dies);
            } catch (const std::runtime_error&) {
            }
            threads.emplace_back([p, &result = results[i]] {
                DumpHVLMarginDataToConsole console;
                HVLMarginHandler(p).margin(console, result);
            });
        }
        for (auto& thread : threads) thread.join();
        for (const json& result : results)
            for (const json& lane : result) {
                csv_handler->dump_data(lane, lane, csv);
                bin_handler->dump_data(lane, lane, bin);
            }
    }
    const auto stop = system_facts().now();
    for (const auto& [name, text] : {std::pair{base + ".csv", csv.str()}, std::pair{base + ".bin", bin.str()}}) {
        std::string write_error;
        if (!write_file_atomically((root / name).string(), text, write_error)) {
            error = write_error;
            return 0;
        }
    }
    if (csv_path) *csv_path = (root / (base + ".csv")).string();
    std::cout << "  Output file : " << base << ".csv" << std::endl;

    // The run summary for the results collector.
    OSSpecific os;
    const std::string product = os.get_product_name(), bios = os.get_bios_version();
    const std::string label =
        "EV_CLOUD_LANEWRIGHT_" + product + "_" + bios + "_hVL_" + make_date_time_user_readable(time_stamp());
    const json summary = {{"executionlabel", label},    {"testname", label},
                          {"platform", product},        {"softwarestackversion", bios},
                          {"starttime", clock_text(start)}, {"stoptime", clock_text(stop)},
                          {"time_staged", clock_text(system_facts().now())}};
    std::filesystem::create_directories(root / "ev_cloud", made);
    std::ofstream(root / "ev_cloud" / ("ev_cloud_lanewright_" + lower(product) + "_" + lower(bios) + "_hvl_" +
                                       time_stamp() + ".json"),
                  std::ios::app)
        << summary.dump(4) << std::endl;
    return 1;
}
