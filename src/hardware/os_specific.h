// What the rest of the product wants of the operating system: time, files,
// machine identity and processor identity. Time and machine facts come
// from the process-wide SystemFacts provider, so they follow the model's
// virtual time and profile when one is installed.
#pragma once

#include <string>
#include <tuple>
#include <vector>

// No state: used on a temporary, OSSpecific().get_exe_folder().
class OSSpecific {
public:
    void sleep(unsigned seconds);
    void milli_secs_sleep(unsigned milliseconds);

    int get_process_id();
    std::string get_os_name();
    std::string get_kernel_version();

    // Full paths, sorted by name; a missing folder gives an empty list.
    std::vector<std::string> get_all_files(const std::string& folder);
    std::vector<std::string> get_all_subfolders(const std::string& folder);

    bool move_file(const std::string& from, const std::string& to);
    // Whether a child of this process still runs (reaps it if it ended).
    bool is_child_pid_active(int pid);
    void execute_sync_command();
    bool launched_with_root();
    std::string get_exe_folder();

    std::string append_to_path(const std::string& path, const std::string& name);
    std::string get_file_name_from_path(const std::string& path);
    std::string remove_file_name_from_path(const std::string& path);

    // True when an escape key waits on a terminal stdin; never blocks.
    bool check_ESC_key_pressed();

    std::string get_bios_version();
    std::string get_product_name();
    std::string get_system_name();

    bool delete_dir(const std::string& path);
    std::tuple<unsigned, unsigned, unsigned> get_family_model_stepping();
    std::string get_numa_mode();
};
