// A model machine for eye scans: the default profile with changes, booted
// with its dies detected; die0 is socket 0's.
#pragma once

#include <functional>

#include <nlohmann/json.hpp>

#include "support/model_profile.h"

namespace eye_test {

struct EyeMachine : lw_test::BootedModel {
    // edit changes the default profile before it is loaded.
    explicit EyeMachine(const std::function<void(nlohmann::json&)>& edit = nullptr)
        : BootedModel(edited(edit), 1e7), die0(die(0)) {}

    static lw_test::Profile edited(const std::function<void(nlohmann::json&)>& edit) {
        lw_test::Profile profile;
        if (edit) edit(profile.doc);
        return profile;
    }

    VEX_DIE_INFO die0;
};

}  // namespace eye_test
