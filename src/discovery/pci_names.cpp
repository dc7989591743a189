#include "discovery/pci_names.h"

#include <cctype>
#include <fstream>
#include <mutex>
#include <sstream>

#include "discovery/pci_config_read.h"

namespace PCIE {

namespace {

bool is_hex(const std::string& text, std::size_t from, std::size_t count) {
    if (text.size() < from + count) return false;
    for (std::size_t i = from; i < from + count; ++i)
        if (!std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
    return true;
}

// "<hex id>  <name>" starting at from; false if the line isn't of that form.
bool parse_entry(const std::string& line, std::size_t from, std::size_t digits, unsigned int& id, std::string& name) {
    if (!is_hex(line, from, digits) || line.size() < from + digits + 2 || line[from + digits] != ' ') return false;
    id = static_cast<unsigned int>(std::stoul(line.substr(from, digits), nullptr, 16));
    const std::size_t start = line.find_first_not_of(' ', from + digits);
    if (start == std::string::npos) return false;
    name = line.substr(start);
    while (!name.empty() && (name.back() == ' ' || name.back() == '\r')) name.pop_back();
    return true;
}

std::string trim_right(std::string text) {
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

struct SharedDatabase {
    std::mutex mutex;
    std::string path = "/usr/share/misc/pci.ids";
    std::shared_ptr<const PCIIdDatabase> database;
};

SharedDatabase& shared_database() {
    static SharedDatabase* shared = new SharedDatabase;
    return *shared;
}

}  // namespace

PCIIdDatabase::PCIIdDatabase(const std::string& path) {
    std::ifstream in(path);
    enum class Section { Vendors, Classes } section = Section::Vendors;
    unsigned int base_class = 0;
    unsigned int sub_class = 0;
    bool have_sub_class = false;
    unsigned int vendor = 0;
    bool have_vendor = false;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        unsigned int id = 0;
        std::string name;
        if (line.rfind("C ", 0) == 0) {
            section = Section::Classes;
            have_sub_class = false;
            if (!parse_entry(line, 2, 2, base_class, name)) section = Section::Vendors;
        } else if (line[0] != '\t') {
            section = Section::Vendors;
            have_vendor = parse_entry(line, 0, 4, id, name);
            if (have_vendor) {
                vendor = id;
                _vendors.emplace(id, name);
            }
        } else if (section == Section::Vendors && have_vendor && line.size() > 1 && line[1] != '\t') {
            if (parse_entry(line, 1, 4, id, name)) _devices.emplace(vendor << 16 | id, name);
        } else if (section == Section::Classes) {
            if (line.size() > 1 && line[1] == '\t') {
                if (have_sub_class && parse_entry(line, 2, 2, id, name))
                    _interfaces.emplace((base_class << 16) | (sub_class << 8) | id, name);
            } else if (parse_entry(line, 1, 2, sub_class, name)) {
                have_sub_class = true;
                _sub_classes.emplace((base_class << 8) | sub_class, name);
            }
        }
        // Subsystem lines of the vendor section aren't needed.
    }
}

std::string PCIIdDatabase::device_name(unsigned int vendor_id, unsigned int device_id) const {
    const auto it = _devices.find(vendor_id << 16 | device_id);
    return it == _devices.end() ? std::string() : it->second;
}

std::pair<std::string, std::string> PCIIdDatabase::vendor_names(unsigned int vendor_id) const {
    // What an absent function reads; the database's rows for them name no maker.
    if (vendor_id == 0x0000 || vendor_id == 0xFFFF) return {};
    const auto found = _vendors.find(vendor_id);
    if (found == _vendors.end()) return {};
    const std::string& name = found->second;
    const std::size_t open = name.rfind(" [");
    if (open == std::string::npos || name.back() != ']') return {name, name};
    return {name.substr(open + 2, name.size() - open - 3), trim_right(name.substr(0, open))};
}

std::optional<std::string> PCIIdDatabase::class_text(unsigned int base_class, unsigned int sub_class,
                                                     unsigned int programming_interface) const {
    const auto sub = _sub_classes.find((base_class << 8) | sub_class);
    if (sub == _sub_classes.end()) return std::nullopt;
    const auto interface = _interfaces.find((base_class << 16) | (sub_class << 8) | programming_interface);
    if (interface == _interfaces.end()) return sub->second;
    return sub->second + " (" + interface->second + ")";
}

std::shared_ptr<const PCIIdDatabase> PCIIdDatabase::shared() {
    SharedDatabase& shared = shared_database();
    std::lock_guard<std::mutex> guard(shared.mutex);
    if (!shared.database) shared.database = std::make_shared<const PCIIdDatabase>(shared.path);
    return shared.database;
}

void PCIIdDatabase::set_path(const std::string& path) {
    SharedDatabase& shared = shared_database();
    std::lock_guard<std::mutex> guard(shared.mutex);
    shared.path = path;
    shared.database.reset();
}

GetVendorName::GetVendorName(Device_ID device, ReadPCI& read) : _device(device), _read(read) {}

std::pair<std::string, std::string> GetVendorName::operator()() const {
    unsigned int ids = 0;
    read_config_dword(_read, _device, 0, ids);
    return PCIIdDatabase::shared()->vendor_names(ids & 0xFFFF);
}

GetClassName::GetClassName(Device_ID device, ReadPCI& read) : _device(device), _read(read) {}

std::string GetClassName::operator()() const {
    unsigned int dword = 0;
    read_config_dword(_read, _device, 8, dword);
    const unsigned int code = dword >> 8;
    const unsigned int base_class = (code >> 16) & 0xFF;
    const unsigned int sub_class = (code >> 8) & 0xFF;
    const unsigned int interface = code & 0xFF;
    if (auto text = PCIIdDatabase::shared()->class_text(base_class, sub_class, interface)) return *text;
    std::ostringstream unknown;
    unknown << "[Unknown Class:" << std::uppercase << std::hex << base_class << ":" << sub_class << "." << interface
            << "]";
    return unknown.str();
}

}  // namespace PCIE
