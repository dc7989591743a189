#include "result_data/static_data.h"

#include <cstdio>
#include <functional>
#include <set>
#include <utility>

#include "hardware/chips/chip_identity.h"
#include "hardware/crn_factory.h"
#include "hardware/os_specific.h"
#include "hardware/phy_accessor.h"

namespace {

constexpr const char* kNotAvailable = "Not Available";

// Dies of the KX900 line report as graphics silicon, whatever their kind.
bool is_gpu_die(const VEX_DIE_INFO& die) {
    const std::string name = die.name();
    return name == "KX900A" || name == "KX900C" || name == "KX900X";
}
bool is_cpu_die(const VEX_DIE_INFO& die) { return die.is_cpu && !is_gpu_die(die); }

using DieWords = std::map<std::pair<unsigned, unsigned>, unsigned>;

// One 32-bit word of each die the filter passes, keyed by (socket, die) so
// the joins below come out in a stable order.
DieWords read_word(const std::vector<VEX_DIE_INFO>& dies, const std::function<bool(const VEX_DIE_INFO&)>& pick,
                   unsigned address) {
    DieWords words;
    for (const VEX_DIE_INFO& die : dies) {
        if (!pick(die)) continue;
        const PhyAccessor phy(CRNFactory::instance()->get_crn_accessor(die));
        words[{die.socket(), die.die()}] = phy.read(0, address, 4);
    }
    return words;
}

// "0x%08X" words in (socket, die) order, separated by "_": neither comma
// nor blank, so the value stays one CSV cell.
std::string join_revision_words(const DieWords& words) {
    if (words.empty()) return kNotAvailable;
    std::string joined;
    for (const auto& [where, word] : words) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%08X", word);
        if (!joined.empty()) joined += "_";
        joined += text;
    }
    return joined;
}

// The machine is "Secure" only when every die of the kind is; one
// unsecure die makes the kind "Unsecure".
std::string secure_text(const DieWords& words) {
    if (words.empty()) return kNotAvailable;
    for (const auto& [where, word] : words)
        if (!((word >> chips::kSecureStatusBit) & 1)) return "Unsecure";
    return "Secure";
}

}  // namespace

StaticDataHandler& StaticDataHandler::get() {
    static StaticDataHandler handler;
    return handler;
}

void StaticDataHandler::set_static_fields(const std::string& name, const std::string& value) {
    std::lock_guard<std::mutex> guard(_mutex);
    _fields[name] = value;
}

std::map<std::string, std::string> StaticDataHandler::get_static_fields_map() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _fields;
}

StaticDataUtility::StaticDataUtility(std::vector<VEX_DIE_INFO> dies) : _dies(std::move(dies)) {}

void StaticDataUtility::update_static_data() {
    _set_nps_mode();
    _set_system_name();
    _set_silicon_rev();
    _set_secure_status();
    _set_topology();
}

void StaticDataUtility::update_spare_data(const std::map<std::string, std::string>& spare) {
    for (const auto& [name, value] : spare) StaticDataHandler::get().set_static_fields(name, value);
}

// The NUMA node count as the system reports it, e.g. "NPS2".
void StaticDataUtility::_set_nps_mode() {
    StaticDataHandler::get().set_static_fields("NPS", "NPS" + OSSpecific().get_numa_mode());
}

void StaticDataUtility::_set_system_name() {
    StaticDataHandler::get().set_static_fields("SystemName", OSSpecific().get_system_name());
}

void StaticDataUtility::_set_silicon_rev() {
    StaticDataHandler& handler = StaticDataHandler::get();
    handler.set_static_fields("CPU SiliconRev",
                              join_revision_words(read_word(_dies, is_cpu_die, chips::kSiliconRevisionRegister)));
    handler.set_static_fields("GPU SiliconRev",
                              join_revision_words(read_word(_dies, is_gpu_die, chips::kSiliconRevisionRegister)));
}

void StaticDataUtility::_set_secure_status() {
    StaticDataHandler& handler = StaticDataHandler::get();
    handler.set_static_fields("CPU SecureStatus", secure_text(read_word(_dies, is_cpu_die, chips::kSecureStatusRegister)));
    handler.set_static_fields("GPU SecureStatus", secure_text(read_word(_dies, is_gpu_die, chips::kSecureStatusRegister)));
}

void StaticDataUtility::_set_topology() {
    auto store = [this](const std::function<bool(const VEX_DIE_INFO&)>& pick, const char* name_key,
                        const char* count_key) {
        std::set<unsigned> sockets;
        std::string name;
        for (const VEX_DIE_INFO& die : _dies) {
            if (!pick(die)) continue;
            sockets.insert(die.socket());
            name = die.name();
        }
        if (sockets.empty()) return;
        StaticDataHandler::get().set_static_fields(name_key, name);
        StaticDataHandler::get().set_static_fields(count_key, std::to_string(sockets.size()));
    };
    store([](const VEX_DIE_INFO& die) { return die.name() == "KX900X"; }, "GPUName", "GPUSocketCount");
    store([](const VEX_DIE_INFO& die) { return die.is_cpu; }, "CPUName", "CPUSocketCount");
}
