// How long a PCIe margin record would take, answered before it is queued
// (POST "/api/1.0/EstimateTestDuration").
//
// The answer is the plan's upper estimate in nominal time, what the run takes
// on hardware (margin_plan.h): the dwell from the record's BER and error count
// at the link's current speed, the record's lanes (the link's width when it
// names none), in batches of what the receiver margins at once, every side
// walked as walkback does, and the first failing offset of each side at the
// full dwell. Early exit usually saves most of that last dwell, but not
// reliably (it depends on how fast errors show), so it is not assumed.
//
// The receiver's figures (steps, MaxLanes, which sides) come from what a run
// or an earlier estimate read; failing that they are read from the receiver,
// but only when no margin or other estimate holds the function (one that does
// is waited for at most a second), so an estimate never disturbs a running
// measurement.
#pragma once

#include <nlohmann/json.hpp>

class GUIResourceStore;

// {"OperationStatus": true, "Seconds", "DwellSeconds", "Batches", "Lanes"} or
// {"OperationStatus": false, "ErrMsg"} for a record that can't be estimated
// (the queue's own refusals included).
nlohmann::json estimate_pcie_margin_duration(const nlohmann::json& record, GUIResourceStore& store);
