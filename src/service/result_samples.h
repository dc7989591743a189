// Fixed result lists behind "GetCurrentPCIeResults", "GetCurrentHVLResults"
// and "GetAllCurrentResults".
//
// They read no storage: live results reach the browser through the archive
// routes. Each is {"TestList": [three test records]} in the shape the runners
// write to output.json, with made-up figures, times and folders: one
// "complete" record with its "FullMarginData" and one "Failed" with the reason
// "Incorrect params.". The hVL records carry the label
// "Destructive HVL Margin", which is what these lists have always shown.
#pragma once

#include <nlohmann/json.hpp>

// An "EyeScan" on a PCIe port and two "PCIe Margin" records.
nlohmann::json current_pcie_results_sample();

// An "EyeScan" on an hVL link and two "Destructive HVL Margin" records.
nlohmann::json current_hvl_results_sample();

// A "PCIe Margin" and a "Destructive HVL Margin" that completed, and a
// "PCIe Margin" that failed.
nlohmann::json all_current_results_sample();
