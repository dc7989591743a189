#include "hardware/os_specific.h"

#include <poll.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>

#include "hardware/resource_lock.h"
#include "hardware/system_facts.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string> list_folder(const std::string& folder, bool want_folders) {
    std::vector<std::string> paths;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code type_ec;
        const bool is_folder = it->is_directory(type_ec);
        if (type_ec) continue;
        if (want_folders ? is_folder : it->is_regular_file(type_ec)) paths.push_back(it->path().string());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace

void OSSpecific::sleep(unsigned seconds) {
    system_facts().sleep_for(std::chrono::seconds(seconds));
}

void OSSpecific::milli_secs_sleep(unsigned milliseconds) {
    system_facts().sleep_for(std::chrono::milliseconds(milliseconds));
}

int OSSpecific::get_process_id() { return static_cast<int>(getpid()); }

std::string OSSpecific::get_os_name() { return system_facts().os_name(); }

std::string OSSpecific::get_kernel_version() { return system_facts().kernel_version(); }

std::vector<std::string> OSSpecific::get_all_files(const std::string& folder) {
    return list_folder(folder, false);
}

std::vector<std::string> OSSpecific::get_all_subfolders(const std::string& folder) {
    return list_folder(folder, true);
}

bool OSSpecific::move_file(const std::string& from, const std::string& to) {
    std::error_code ec;
    fs::rename(from, to, ec);
    if (!ec) return true;
    if (ec.value() != EXDEV) return false;
    // rename can't cross file systems: copy, then drop the original.
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing, ec);
    if (ec) return false;
    fs::remove_all(from, ec);
    return !ec;
}

bool OSSpecific::is_child_pid_active(int pid) {
    int status = 0;
    return waitpid(static_cast<pid_t>(pid), &status, WNOHANG) == 0;
}

void OSSpecific::execute_sync_command() { ::sync(); }

bool OSSpecific::launched_with_root() { return geteuid() == 0; }

// The folder is used to open files directly, never handed to a shell, so a
// blank in it is left as it is (no back-slash escaping).
std::string OSSpecific::get_exe_folder() {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    return exe.parent_path().string();
}

std::string OSSpecific::append_to_path(const std::string& path, const std::string& name) {
    if (path.empty()) return name;
    if (path.back() == '/') return path + name;
    return path + "/" + name;
}

std::string OSSpecific::get_file_name_from_path(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string OSSpecific::remove_file_name_from_path(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return {};
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool OSSpecific::check_ESC_key_pressed() {
    if (!isatty(STDIN_FILENO)) return false;

    // Without leaving canonical mode a key only shows after Enter.
    termios saved{};
    if (tcgetattr(STDIN_FILENO, &saved) != 0) return false;
    termios raw = saved;
    raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    if (tcsetattr(STDIN_FILENO, TCSANOW, &raw) != 0) return false;

    bool escape = false;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, 0) > 0 && (input.revents & POLLIN)) {
        char key = 0;
        escape = read(STDIN_FILENO, &key, 1) == 1 && key == 0x1B;
    }
    tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    return escape;
}

// Queries of the machine's identity are serialised under these names,
// which other users of the names rely on.
std::string OSSpecific::get_bios_version() {
    NamedLockGuard guard("DMIDECODEBIOSVERSION");
    return system_facts().bios_version();
}

std::string OSSpecific::get_product_name() {
    NamedLockGuard guard("DMIDECODEBIOSVERSION");
    return system_facts().product_name();
}

std::string OSSpecific::get_system_name() {
    NamedLockGuard guard("GetSystemName");
    return system_facts().host_name();
}

bool OSSpecific::delete_dir(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
    return !ec;
}

std::tuple<unsigned, unsigned, unsigned> OSSpecific::get_family_model_stepping() {
    const ProcessorIdentity id = system_facts().processor_identity();
    return {id.family, id.model, id.stepping};
}

std::string OSSpecific::get_numa_mode() { return system_facts().numa_mode(); }
