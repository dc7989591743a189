// Reading the parts of a test record that runners rely on, strictly, so that
// a record that cannot run is refused at the queue instead of failing later.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "hardware/pci_device_details.h"

class GUIResourceStore;

// "seg:bus:dev.fn" in hexadecimal, e.g. "0:c1:0.0". Nothing when malformed.
std::optional<PCIE::Device_ID> parse_sbdf(const std::string& text);

// "Lanes": numbers, or strings of decimal numbers separated by commas, mixed
// freely; other elements are skipped. A string part that isn't a number makes
// the whole list invalid (error says which).
std::optional<std::vector<unsigned int>> parse_lanes(const nlohmann::json& lanes, std::string& error);

// The margin parameters every margin runner reads: "TestParams" with "BER"
// (decimal text), "ErrCnt", and "Lanes"; with_receiver adds "Receiver".
std::optional<std::string> check_margin_params(const nlohmann::json& test, bool with_receiver);

// A PCIe margin record: "PCIeInfo"."SBDF" well formed and naming a function
// found at start-up, and the margin parameters with "Receiver"; then, against
// that function's element of the margin device list: it supports margining,
// "BER" is one of its "BER" choices, "ErrCnt" lies within its range,
// "Receiver" is one of its "Receivers", and "Lanes" names at least one lane,
// none twice, all of them lanes it offers (those of the trained link).
std::optional<std::string> check_pcie_margin_record(const nlohmann::json& test, GUIResourceStore& store);

// An hVL record (margin or eye scan on an hVL link): "HVLCtrlInfo" with
// "DeviceName" the full name of a die found at start-up and "SERDES" one of
// that die's hVL links, and the margin parameters without "Receiver".
std::optional<std::string> check_hvl_record(const nlohmann::json& test, GUIResourceStore& store);

// An eye scan record: "SERDES" naming a die found at start-up and a link;
// "PCIeInfo" naming a port of the PCIe device list that offers eye scans, or
// "HVLCtrlInfo" naming a link of the hVL list, whose "SERDES" is the
// record's; "TestParams" with "BER" one of the offered choices, "Lanes" at
// least one lane, none twice, all among the target's "EyeScanData"."Lanes",
// and a scan window the PHY can take. On success `target` (when given) is
// the target's element of its device list.
std::optional<std::string> check_eye_scan_record(const nlohmann::json& test, GUIResourceStore& store,
                                                 nlohmann::json* target = nullptr);

// The whole check AddTestToQueue makes: a known "Operation" whose runner this
// build has, then that runner's own check. Nothing when the record may queue.
std::optional<std::string> check_test_record(const nlohmann::json& test, GUIResourceStore& store);
