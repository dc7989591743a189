// Model machines for tests in a few lines: the default machine as a profile,
// changed where a test needs it (a port's or device's fields by its name, an
// eye, a fault, an hVL link), and booted behind the product's seams with its
// functions and dies detected.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "discovery/die_detection.h"
#include "discovery/pci_detection.h"
#include "discovery/port_mapping.h"
#include "hardware/crn_factory.h"
#include "hardware/gfx_accessor_maker.h"
#include "hardware/system_facts.h"
#include "simulator/platform.h"
#include "simulator/profile.h"

namespace lw_test {

class Profile {
public:
    Profile() : doc(nlohmann::json::parse(sim::default_profile_text())) {}

    // The root port, switch port or device the profile names so.
    nlohmann::json& at(std::string_view name) {
        if (nlohmann::json* found = find(doc, name)) return *found;
        throw std::invalid_argument("the profile names nothing " + std::string(name));
    }
    // Fields of that port or device, merged over what it has.
    Profile& set(std::string_view name, const nlohmann::json& fields) {
        at(name).merge_patch(fields);
        return *this;
    }
    Profile& margining(std::string_view name, const nlohmann::json& fields) {
        return set(name, {{"margining", fields}});
    }
    Profile& fault(const nlohmann::json& fault) {
        doc["faults"].push_back(fault);
        return *this;
    }
    Profile& socket(unsigned index, const nlohmann::json& fields) {
        doc["sockets"].at(index).merge_patch(fields);
        return *this;
    }
    // The default machine's hVL links: 0 joins s0.G1 and s1.G3, 1 s0.P1 and s1.P3.
    Profile& hvl(unsigned index, const nlohmann::json& fields) {
        doc["hvl_links"].at(index).merge_patch(fields);
        return *this;
    }

    sim::Platform platform(double time_scale = 1e6, std::optional<uint64_t> seed = std::nullopt) const {
        return sim::make_platform(sim::parse_profile(doc), seed, time_scale);
    }

    nlohmann::json doc;

private:
    static nlohmann::json* find(nlohmann::json& node, std::string_view name) {
        if (node.is_object() && node.contains("name") && node["name"] == name) return &node;
        if (!node.is_structured()) return nullptr;
        for (auto& child : node)
            if (nlohmann::json* found = find(child, name)) return found;
        return nullptr;
    }
};

// A machine installed as the product sees it after start: register network
// and port map start empty, functions and dies are detected. Everything is
// forgotten again at the end, so the next test boots afresh.
class BootedModel {
public:
    explicit BootedModel(const Profile& profile = {}, double time_scale = 1e6)
        : platform(std::make_unique<sim::Platform>(profile.platform(time_scale))) {
        platform->install();
        forget();
        CRNFactory::initalize(read(), write());
        devices = DetectPCIDevices()(read());
        dies = DetectVEXDies(write())(devices, read());
    }
    ~BootedModel() {
        forget();
        set_system_facts(nullptr);
        set_gfx_accessor_maker(nullptr);
    }
    BootedModel(const BootedModel&) = delete;
    BootedModel& operator=(const BootedModel&) = delete;

    std::shared_ptr<ReadPCI> read() const { return platform->read_pci(); }
    std::shared_ptr<WritePCI> write() const { return platform->write_pci(); }
    const VEX_DIE_INFO& die(unsigned socket) const {
        for (const auto& die : dies)
            if (die.socket() == socket) return die;
        throw std::out_of_range("no die of socket " + std::to_string(socket));
    }

    static void forget() {
        reset_all_port_data();
        CRNFactory::reset();
    }

    std::unique_ptr<sim::Platform> platform;
    std::vector<PCIDeviceDetails> devices;
    std::vector<VEX_DIE_INFO> dies;
};

}  // namespace lw_test
