#include "hardware/system_facts.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace {

std::mutex provider_mutex;
std::shared_ptr<SystemFacts> provider;
// system_facts() hands out references, so a provider that is replaced while
// another thread still uses it must stay alive. Providers are installed a
// handful of times per process (main, tests), so keeping them costs nothing.
std::vector<std::shared_ptr<SystemFacts>> retired_providers;

std::string read_first_line(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    if (in) std::getline(in, line);
    return trim_blanks(line);
}

std::string strip_quotes(const std::string& text) {
    if (text.size() >= 2 && (text.front() == '"' || text.front() == '\'') &&
        text.back() == text.front())
        return text.substr(1, text.size() - 2);
    return text;
}

}  // namespace

std::string trim_blanks(const std::string& text) {
    const char* blanks = " \n\r\t";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return {};
    const auto last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

void set_system_facts(std::shared_ptr<SystemFacts> replacement) {
    if (!replacement) replacement = std::make_shared<RealSystemFacts>();
    std::lock_guard<std::mutex> guard(provider_mutex);
    if (provider) retired_providers.push_back(std::move(provider));
    provider = std::move(replacement);
}

SystemFacts& system_facts() {
    std::lock_guard<std::mutex> guard(provider_mutex);
    if (!provider) provider = std::make_shared<RealSystemFacts>();
    return *provider;
}

ProcessorIdentity decode_processor_signature(uint32_t eax) {
    ProcessorIdentity id;
    id.family = ((eax >> 20) & 0xFFu) + ((eax >> 8) & 0xFu);
    id.model = (((eax >> 16) & 0xFu) << 4) | ((eax >> 4) & 0xFu);
    id.stepping = eax & 0xFu;
    return id;
}

RealSystemFacts::RealSystemFacts(std::string os_release_path, std::string dmi_folder,
                                 std::string node_folder)
    : _os_release_path(std::move(os_release_path)),
      _dmi_folder(std::move(dmi_folder)),
      _node_folder(std::move(node_folder)) {}

void RealSystemFacts::sleep_for(std::chrono::microseconds nominal) {
    std::this_thread::sleep_for(nominal);
}

std::chrono::system_clock::time_point RealSystemFacts::now() {
    return std::chrono::system_clock::now();
}

std::string RealSystemFacts::host_name() {
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof(name) - 1) != 0) return {};
    return trim_blanks(name);
}

// The DMI files are world-readable on most kernels, which is why no root
// helper is needed; a machine without DMI gives empty texts.
std::string RealSystemFacts::bios_version() {
    return read_first_line(_dmi_folder + "/bios_version");
}

std::string RealSystemFacts::product_name() {
    return read_first_line(_dmi_folder + "/product_name");
}

std::string RealSystemFacts::os_name() {
    std::ifstream in(_os_release_path);
    const std::string key = "PRETTY_NAME=";
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0)
            return strip_quotes(trim_blanks(line.substr(key.size())));
    }
    return {};
}

std::string RealSystemFacts::kernel_version() {
    utsname names{};
    if (uname(&names) != 0) return {};
    return trim_blanks(names.release);
}

std::string RealSystemFacts::numa_mode() {
    namespace fs = std::filesystem;
    std::error_code ec;
    unsigned nodes = 0;
    for (fs::directory_iterator it(_node_folder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name.size() > 4 && name.compare(0, 4, "node") == 0 &&
            name.find_first_not_of("0123456789", 4) == std::string::npos)
            ++nodes;
    }
    // A kernel built without NUMA has no node folders: all memory is one node.
    return std::to_string(nodes == 0 ? 1 : nodes);
}

ProcessorIdentity RealSystemFacts::processor_identity() {
#if defined(__x86_64__) || defined(__i386__)
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return decode_processor_signature(eax);
#endif
    return {};
}
