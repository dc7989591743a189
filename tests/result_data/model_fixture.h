// A machine of the platform model with its dies detected: what the
// result-data readers run over.
#pragma once

#include <optional>

#include "support/model_profile.h"

class ResultDataOnModel : public ::testing::Test {
protected:
    // The default machine; tests that change it call boot() again.
    void SetUp() override { boot(); }
    void boot(const lw_test::Profile& profile = {}) {
        model.reset();
        model.emplace(profile);
        ASSERT_EQ(model->dies.size(), 2u);
    }
    std::optional<lw_test::BootedModel> model;
};
