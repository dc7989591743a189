// The web server of this test process, started once with the whole REST back
// end on a free port and a front-end folder of the tests' own.
#pragma once

#include <filesystem>
#include <string>

#include "gui/gui_resource_store.h"
#include "gui/test_storage.h"

namespace wire_test {

struct RunningService {
    unsigned port;
    std::filesystem::path ui_folder;
    // The store's result root: a temporary folder that doesn't exist until a
    // test makes it; tests that fill it remove what they made.
    std::filesystem::path results_root;
    GUIResourceStore* store;
    TestStorage* storage;
};

// Starts on first use; stopped by the test environment at the end.
RunningService& running_service();

}  // namespace wire_test
