// A batch of hVL margin jobs: the power states and receiver termination
// prepared on every die, the jobs dealt into two groups so that the two ends
// of one link never run at once, one thread per job within a group, the
// report files and the run summary.
#pragma once

#include <string>
#include <vector>

#include "discovery/lane_generic_information.h"
#include "margin_hvl/hvl_margin_handler.h"

// Deals jobs in order: to group 1 when the job meets no job there on either
// end of its link, else to group 2. A job that meets one in both groups (the
// same link named three times) can't be placed: false with the reason
// "Error: Unexpected scenario in do_hvl_margin", and nothing runs.
bool group_hvl_jobs(const std::vector<DIELinkLanes>& jobs, const std::vector<VEX_DIE_INFO>& dies,
                    std::vector<std::vector<size_t>>& groups, std::string& error);

struct HvlBatchSettings {
    int ber = 0, dwell_time = 0, err_cnt = 0, max_volt_steps = -1, max_timing_steps = -1;
    std::string output_root = ".";  // where the run's folder and "ev_cloud" are made
};

// Margins `lanes` (or, with all_links, lanes 0-15 of every live hVL link of
// every die) and writes "<ts>/hvl_margin.csv" and ".bin" ("texl_margin.*"
// when every entry is a TEXL link; "margin_all_hvl/hvl_margin_all_<ts>.*"
// with all_links) under output_root, and the run summary in "ev_cloud".
// Returns 1; false-y 0 with `error` when the jobs can't be grouped or a
// folder can't be made.
int do_hvl_margin(const std::vector<SerdesLaneSectionParam>& lanes, bool all_links,
                  const std::vector<VEX_DIE_INFO>& dies, const HvlBatchSettings& settings, std::string& error,
                  std::string* csv_path = nullptr);
