// A receiver that speaks Lane Margining at the Receiver through
// configuration space, on the virtual time of a FakeSystemFacts: reports,
// management echoes, and steps whose status and error count follow a script.
// It records every step so tests can see which offsets a walk visited and
// whether the lane was left at normal settings.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "hardware/fake_system_facts.h"
#include "hardware/pci_access.h"

class FakeMarginReceiver : public ReadPCI, public WritePCI {
public:
    static constexpr unsigned kCapability = 0x100;  // behind a first entry, as the search requires
    static constexpr unsigned kNoCommand = 0x9C38;

    struct Step {
        unsigned lane = 0;
        bool voltage = false;
        unsigned offset = 0;
        unsigned flag = 0;  // payload bits above the offset: left/down 0x40/0x80
    };
    // What a step shows once setup is over: status bits 7:6 and the error count.
    struct Answer {
        unsigned status = 2;  // MARGIN_IN_PROGRESS
        unsigned errors = 0;
    };

    unsigned capability_bits = 0x1F;  // every capability
    std::map<unsigned, unsigned> reports{{0x89, 50}, {0x8A, 20}, {0x8B, 35}, {0x8C, 20}, {0x90, 3}};
    std::set<unsigned> active_lanes{0, 1, 2, 3};
    std::map<unsigned, unsigned> config;  // other dwords of configuration space
    unsigned setup_ms = 0;  // SETUP_IN_PROGRESS while no more than this has passed since the step
    std::function<Answer(const Step&)> answer = [](const Step&) { return Answer{}; };
    std::function<void(const Step&)> on_step;  // called as a step is written

    explicit FakeMarginReceiver(FakeSystemFacts& clock) : _clock(clock) {}

    std::vector<Step> steps() const {
        std::lock_guard<std::mutex> guard(_mutex);
        return _steps;
    }
    void forget_steps() {
        std::lock_guard<std::mutex> guard(_mutex);
        _steps.clear();
    }
    std::vector<unsigned> offsets(unsigned lane = 0) const {
        std::vector<unsigned> visited;
        for (const Step& step : steps())
            if (step.lane == lane) visited.push_back(step.offset);
        return visited;
    }
    // Normal settings with a cleared error log since the lane's last step.
    bool at_normal_settings(unsigned lane = 0) const {
        std::lock_guard<std::mutex> guard(_mutex);
        const auto found = _lanes.find(lane);
        return found == _lanes.end() || (found->second.normal && found->second.cleared);
    }
    std::vector<unsigned> commands(unsigned lane = 0) const {
        std::lock_guard<std::mutex> guard(_mutex);
        const auto found = _lanes.find(lane);
        return found == _lanes.end() ? std::vector<unsigned>{} : found->second.commands;
    }

    bool read32(unsigned, unsigned, unsigned, unsigned, unsigned offset, unsigned& value) const override {
        std::lock_guard<std::mutex> guard(_mutex);
        value = config.count(offset) ? config.at(offset) : 0;
        if (offset == kCapability) value = 0x27 | (1u << 16) | (0x200u << 20);
        if (offset == 0x200) value = 0x01 | (1u << 16);
        if (offset < kCapability + 8 || (offset - kCapability - 8) % 4 != 0) return true;
        const unsigned lane = (offset - kCapability - 8) / 4;
        if (!active_lanes.count(lane)) return true;
        Lane& state = _lanes[lane];
        value = (_response(state) << 16) | state.control;
        return true;
    }
    bool read16(unsigned, unsigned, unsigned, unsigned, unsigned, unsigned& value) const override {
        value = 0;
        return true;
    }
    bool read8(unsigned, unsigned, unsigned, unsigned, unsigned, unsigned& value) const override {
        value = 0;
        return true;
    }
    bool write32(unsigned, unsigned, unsigned, unsigned, unsigned offset, unsigned value) const override {
        if (offset < kCapability + 8 || (offset - kCapability - 8) % 4 != 0) return true;
        const unsigned lane = (offset - kCapability - 8) / 4;
        Step step;
        {
            std::lock_guard<std::mutex> guard(_mutex);
            if (!active_lanes.count(lane)) return true;
            Lane& state = _lanes[lane];
            state.control = value & 0xFFFF;
            state.commands.push_back(state.control);
            const unsigned type = (state.control >> 3) & 7, payload = state.control >> 8;
            state.stepping = false;
            state.response = state.control;  // reports and management echo
            if (type == 1 && payload == 0x88) state.response = (state.control & 0xFF) | (capability_bits << 8);
            if (type == 1 && reports.count(payload)) state.response = (state.control & 0xFF) | (reports.at(payload) << 8);
            if (type == 2 && payload == 0x0F) state.normal = true;
            if (type == 2 && payload == 0x55) state.cleared = true;
            if (type != 3 && type != 4) return true;
            state.stepping = true;
            state.normal = state.cleared = false;
            state.started_ms = _now_ms();
            step = {lane, type == 4, payload & (type == 4 ? 0x7Fu : 0x3Fu), payload & (type == 4 ? 0x80u : 0x40u)};
            state.step = step;
            _steps.push_back(step);
        }
        if (on_step) on_step(step);
        return true;
    }
    bool write16(unsigned, unsigned, unsigned, unsigned, unsigned, unsigned) const override { return true; }
    bool write8(unsigned, unsigned, unsigned, unsigned, unsigned, unsigned) const override { return true; }

private:
    struct Lane {
        unsigned control = 0, response = 0;
        bool stepping = false, normal = true, cleared = true;
        long long started_ms = 0;
        Step step;
        std::vector<unsigned> commands;
    };

    long long _now_ms() const {
        long long total = 0;
        for (const auto sleep : _clock.sleeps()) total += sleep.count();
        return total / 1000;
    }
    unsigned _response(const Lane& state) const {
        if (!state.stepping) return state.response;
        Answer shown{1, 0};
        if (_now_ms() - state.started_ms > static_cast<long long>(setup_ms)) shown = answer(state.step);
        return (state.control & 0xFF) | (((shown.status << 6) | (shown.errors & 0x3F)) << 8);
    }

    FakeSystemFacts& _clock;
    mutable std::mutex _mutex;
    mutable std::map<unsigned, Lane> _lanes;
    mutable std::vector<Step> _steps;
};
