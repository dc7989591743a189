#include "gui/test_record_checks.h"

#include <algorithm>
#include <cctype>
#include <sstream>

#include "gui/gui_eye_scan_handle_test.h"
#include "gui/gui_hvl_get_device.h"
#include "gui/gui_pcie_get_device.h"
#include "gui/gui_resource_store.h"
#include "gui/test_runner.h"
#include "discovery/lane_generic_information.h"

using nlohmann::json;

namespace {

std::optional<unsigned long> parse_number(const std::string& text, int base, unsigned long limit) {
    if (text.empty() || text.size() > 8) return std::nullopt;
    for (const char c : text) {
        if (!(base == 16 ? std::isxdigit(static_cast<unsigned char>(c)) : std::isdigit(static_cast<unsigned char>(c))))
            return std::nullopt;
    }
    const unsigned long value = std::stoul(text, nullptr, base);
    if (value > limit) return std::nullopt;
    return value;
}

std::string trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool is_unsigned(const json& value) { return value.is_number_unsigned() || (value.is_number_integer() && value.get<long long>() >= 0); }

// A link the die's lane information says carries hVL. Dies without lane
// information, and links whose protocol the lanes decide, aren't.
bool is_hvl_link(const VEX_DIE_INFO& die, const std::string& link) {
    try {
        const auto info = get_lane_generic_info(die);
        const auto names = info->get_link_names();
        return std::find(names.begin(), names.end(), link) != names.end() &&
               info->which_protocol(link) == chips::kProtocolHVL;
    } catch (const std::runtime_error&) {
        return false;
    }
}

// "a, b, c" of a JSON array's elements as they are written.
std::string listed(const json& values) {
    std::string text;
    for (const json& value : values)
        text += (text.empty() ? "" : ", ") + (value.is_string() ? value.get<std::string>() : value.dump());
    return text.empty() ? "none" : text;
}

// Whether the unsigned JSON number is one of values (numbers), compared
// without narrowing, so 4294967302 is not taken for 6.
bool offers_number(const json& values, const json& number) {
    const auto wanted = number.get<unsigned long long>();
    return std::any_of(values.begin(), values.end(), [wanted](const json& value) {
        return is_unsigned(value) && value.get<unsigned long long>() == wanted;
    });
}

// The device list's element of a function; nothing when it isn't listed.
std::optional<json> listed_element(const PCIE::Device_ID& address, GUIResourceStore& store) {
    const json list = GUIPCIEGetDevice(store).get_device_list(store.get_pcie_device_list());
    for (const json& element : list) {
        const auto sbdf = parse_sbdf(element.at("PCIeInfo").value("SBDF", std::string()));
        if (sbdf && *sbdf == address) return element;
    }
    return std::nullopt;
}

// The margin parameters against what the device list offers this function,
// so that a record runs only with choices the browser could have made.
std::optional<std::string> check_offered_choices(const json& params, const json& offer, const std::string& sbdf) {
    const std::string ber = params.at("BER").get<std::string>();
    const json& bers = offer.at("BER");
    if (std::find(bers.begin(), bers.end(), json(ber)) == bers.end())
        return "\"BER\" \"" + ber + "\" is not offered for " + sbdf + " (choices: " + listed(bers) + ")";

    const auto count = params.at("ErrCnt").get<unsigned long long>();
    const auto lowest = offer.at("ErrCnt").at("Min").get<unsigned long long>();
    const auto highest = offer.at("ErrCnt").at("Max").get<unsigned long long>();
    if (count < lowest || count > highest)
        return "\"ErrCnt\" " + std::to_string(count) + " is outside " + std::to_string(lowest) + " to " +
               std::to_string(highest);

    const json& receiver = params.at("Receiver");
    if (!offers_number(offer.at("Receivers"), receiver))
        return "Receiver " + receiver.dump() + " is not offered for " + sbdf + " (offered: " +
               listed(offer.at("Receivers")) + ")";

    // The runner skips lane elements that are neither numbers nor texts;
    // here they would silently widen the test to every lane, so they refuse.
    for (const json& element : params.at("Lanes"))
        if (!element.is_number() && !element.is_string()) return "lane " + element.dump() + " is not a lane number";
    std::string error;
    const auto lanes = parse_lanes(params.at("Lanes"), error);
    if (!lanes) return error;
    if (lanes->empty()) return "\"Lanes\" names no lane";
    std::vector<unsigned int> seen;
    std::vector<unsigned int> outside;
    for (const unsigned int lane : *lanes) {
        if (std::find(seen.begin(), seen.end(), lane) != seen.end())
            return "lane " + std::to_string(lane) + " is named more than once";
        seen.push_back(lane);
        if (!offers_number(offer.at("Lanes"), json(lane))) outside.push_back(lane);
    }
    if (!outside.empty())
        return std::string(outside.size() == 1 ? "lane " : "lanes ") + listed(json(outside)) +
               (outside.size() == 1 ? " is not a lane" : " are not lanes") + " of the trained link of " + sbdf +
               " (offered: " + listed(offer.at("Lanes")) + ")";
    return std::nullopt;
}

}  // namespace

std::optional<PCIE::Device_ID> parse_sbdf(const std::string& text) {
    const auto first = text.find(':');
    if (first == std::string::npos) return std::nullopt;
    const auto second = text.find(':', first + 1);
    if (second == std::string::npos) return std::nullopt;
    const auto point = text.find('.', second + 1);
    if (point == std::string::npos) return std::nullopt;
    const auto segment = parse_number(text.substr(0, first), 16, 0xFFFF);
    const auto bus = parse_number(text.substr(first + 1, second - first - 1), 16, 0xFF);
    const auto device = parse_number(text.substr(second + 1, point - second - 1), 16, 0x1F);
    const auto function = parse_number(text.substr(point + 1), 16, 7);
    if (!segment || !bus || !device || !function) return std::nullopt;
    return PCIE::Device_ID(static_cast<unsigned>(*segment), static_cast<unsigned>(*bus),
                           static_cast<unsigned>(*device), static_cast<unsigned>(*function));
}

std::optional<std::vector<unsigned int>> parse_lanes(const json& lanes, std::string& error) {
    if (!lanes.is_array()) {
        error = "\"Lanes\" must be an array";
        return std::nullopt;
    }
    std::vector<unsigned int> result;
    for (const auto& element : lanes) {
        if (element.is_number()) {
            if (!is_unsigned(element) || element.get<unsigned long long>() > 0xFFFF) {
                error = "lane " + element.dump() + " is not a lane number";
                return std::nullopt;
            }
            result.push_back(element.get<unsigned int>());
        } else if (element.is_string()) {
            std::stringstream parts(element.get<std::string>());
            std::string part;
            while (std::getline(parts, part, ',')) {
                const auto lane = parse_number(trim(part), 10, 0xFFFF);
                if (!lane) {
                    error = "lanes \"" + element.get<std::string>() + "\": \"" + part + "\" is not a lane number";
                    return std::nullopt;
                }
                result.push_back(static_cast<unsigned int>(*lane));
            }
        }
    }
    return result;
}

std::optional<std::string> check_margin_params(const json& test, bool with_receiver) {
    const auto params = test.find("TestParams");
    if (params == test.end() || !params->is_object()) return "the record has no \"TestParams\" object";
    const auto ber = params->find("BER");
    if (ber == params->end() || !ber->is_string()) return "\"TestParams\".\"BER\" must be a text such as \"12\"";
    const std::string ber_text = ber->get<std::string>();
    if (ber_text.empty() || !std::isdigit(static_cast<unsigned char>(ber_text.front())))
        return "\"TestParams\".\"BER\" \"" + ber_text + "\" is not a decimal exponent such as \"12\"";
    const auto count = params->find("ErrCnt");
    if (count == params->end() || !is_unsigned(*count)) return "\"TestParams\".\"ErrCnt\" must be a whole number";
    if (with_receiver) {
        const auto receiver = params->find("Receiver");
        if (receiver == params->end() || !is_unsigned(*receiver))
            return "\"TestParams\".\"Receiver\" must be a whole number";
    }
    const auto lanes = params->find("Lanes");
    if (lanes == params->end()) return "\"TestParams\" has no \"Lanes\"";
    std::string error;
    if (!parse_lanes(*lanes, error)) return error;
    return std::nullopt;
}

std::optional<std::string> check_pcie_margin_record(const json& test, GUIResourceStore& store) {
    const auto info = test.find("PCIeInfo");
    if (info == test.end() || !info->is_object()) return "the record has no \"PCIeInfo\" object";
    const auto sbdf = info->find("SBDF");
    if (sbdf == info->end() || !sbdf->is_string()) return "\"PCIeInfo\" has no \"SBDF\"";
    const auto address = parse_sbdf(sbdf->get<std::string>());
    if (!address)
        return "\"SBDF\" \"" + sbdf->get<std::string>() + "\" is not of the form segment:bus:device.function in hex";
    const auto devices = store.get_pcie_device_list();
    const bool found = std::any_of(devices.begin(), devices.end(), [&](const PCIDeviceDetails& device) {
        return PCIE::Device_ID(device) == *address;
    });
    const std::string name = sbdf->get<std::string>();
    if (!found) return "no PCI function " + name + " on this machine";
    if (const auto refusal = check_margin_params(test, true)) return refusal;
    const auto element = listed_element(*address, store);
    if (!element) return "PCI function " + name + " has no link to margin (its link speed can't be read)";
    if (!element->value("PCIeMarginSupported", false))
        return "PCI function " + name + " doesn't support margining: " +
               element->value("PCIeMarginUnsupportedReason", std::string("the margin pre-check failed"));
    return check_offered_choices(test.at("TestParams"), element->at("PCIeMarginData"), name);
}

std::optional<std::string> check_hvl_record(const json& test, GUIResourceStore& store) {
    const auto info = test.find("HVLCtrlInfo");
    if (info == test.end() || !info->is_object()) return "the record has no \"HVLCtrlInfo\" object";
    const auto name = info->find("DeviceName");
    if (name == info->end() || !name->is_string()) return "\"HVLCtrlInfo\" has no \"DeviceName\"";
    const auto link = info->find("SERDES");
    if (link == info->end() || !link->is_string()) return "\"HVLCtrlInfo\" has no \"SERDES\"";
    const auto dies = store.get_die_list();
    const auto die = std::find_if(dies.begin(), dies.end(),
                                  [&](const VEX_DIE_INFO& candidate) { return candidate.full_name() == *name; });
    if (die == dies.end()) return "no die \"" + name->get<std::string>() + "\" on this machine";
    if (!is_hvl_link(*die, link->get<std::string>()))
        return "\"" + link->get<std::string>() + "\" is not an hVL link of " + die->full_name();
    return check_margin_params(test, false);
}

std::optional<std::string> check_eye_scan_record(const json& test, GUIResourceStore& store, json* target) {
    const auto serdes = test.find("SERDES");
    if (serdes == test.end() || !serdes->is_object()) return "the record has no \"SERDES\" object";
    const auto name = serdes->find("DeviceName");
    const auto link = serdes->find("SERDES");
    if (name == serdes->end() || !name->is_string()) return "\"SERDES\" has no \"DeviceName\"";
    if (link == serdes->end() || !link->is_string()) return "\"SERDES\" has no \"SERDES\" (the link)";
    const auto dies = store.get_die_list();
    if (std::none_of(dies.begin(), dies.end(), [&](const VEX_DIE_INFO& die) { return die.full_name() == *name; }))
        return "no die \"" + name->get<std::string>() + "\" on this machine";

    // The target's element of its list: what the browser was offered.
    json element;
    std::string target_name;
    const auto pcie = test.find("PCIeInfo");
    const auto hvl = test.find("HVLCtrlInfo");
    if (pcie != test.end()) {
        if (!pcie->is_object() || !pcie->contains("SBDF") || !(*pcie)["SBDF"].is_string())
            return "\"PCIeInfo\" has no \"SBDF\"";
        target_name = (*pcie)["SBDF"].get<std::string>();
        const auto address = parse_sbdf(target_name);
        if (!address) return "\"SBDF\" \"" + target_name + "\" is not of the form segment:bus:device.function in hex";
        const auto found = listed_element(*address, store);
        if (!found) return "no PCIe port " + target_name + " in the device list";
        element = *found;
        if (!element.value("EyeScanSupported", false))
            return "PCI function " + target_name + " doesn't offer eye scans (only mapped ports of the platform do)";
    } else if (hvl != test.end()) {
        if (!hvl->is_object()) return "\"HVLCtrlInfo\" must be an object";
        target_name = hvl->value("DeviceName", std::string()) + " " + hvl->value("SERDES", std::string());
        const json list = GUIHVLGetDevice(store).get_device_list(store.get_pcie_device_list());
        if (list.is_array())
            for (const json& candidate : list)
                if (candidate["HVLCtrlInfo"]["DeviceName"] == hvl->value("DeviceName", json()) &&
                    candidate["HVLCtrlInfo"]["SERDES"] == hvl->value("SERDES", json()))
                    element = candidate;
        if (element.is_null()) return "no hVL link " + target_name + " in the device list";
        if (!element.value("EyeScanSupported", false)) return "hVL link " + target_name + " doesn't offer eye scans";
    } else {
        return "the record has no \"PCIeInfo\" (a PCIe port) or \"HVLCtrlInfo\" (an hVL link)";
    }
    // The runner scans the record's "SERDES": it must be the target's link.
    const json listed_serdes = element.value("SERDES", json::object());
    if (listed_serdes.value("DeviceName", json()) != *name || listed_serdes.value("SERDES", json()) != *link)
        return "\"SERDES\" " + serdes->dump() + " is not the link of " + target_name + " (" +
               element.value("SERDES", json()).dump() + ")";

    const auto params = test.find("TestParams");
    if (params == test.end() || !params->is_object()) return "the record has no \"TestParams\" object";
    const json& offer = element.at("EyeScanData");
    const auto ber = params->find("BER");
    if (ber == params->end() || !ber->is_string() || eye_scan_nbits(ber->get<std::string>()) == 0)
        return "\"BER\" " + (ber == params->end() ? std::string("(none)") : ber->dump()) +
               " is not one of the eye scan choices (" + listed(offer.at("BER")) + ")";
    const auto lanes_value = params->find("Lanes");
    if (lanes_value == params->end()) return "\"TestParams\" has no \"Lanes\"";
    for (const json& lane : *lanes_value)
        if (!lane.is_number() && !lane.is_string()) return "lane " + lane.dump() + " is not a lane number";
    std::string error;
    const auto lanes = parse_lanes(*lanes_value, error);
    if (!lanes) return error;
    if (lanes->empty()) return "\"Lanes\" names no lane";
    std::vector<unsigned int> seen;
    for (const unsigned int lane : *lanes) {
        if (std::find(seen.begin(), seen.end(), lane) != seen.end())
            return "lane " + std::to_string(lane) + " is named more than once";
        seen.push_back(lane);
        if (!offers_number(offer.at("Lanes"), json(lane)))
            return "lane " + std::to_string(lane) + " is not an eye scan lane of " + target_name + " (offered: " +
                   listed(offer.at("Lanes")) + ")";
    }
    if (!read_eye_scan_window(*params, error)) return error;
    if (target) *target = element;
    return std::nullopt;
}

std::optional<std::string> check_test_record(const json& test, GUIResourceStore& store) {
    if (!test.is_object()) return "a test record must be a JSON object";
    const auto operation = test.find("Operation");
    if (operation == test.end() || !operation->is_string()) return "the record has no \"Operation\"";
    const std::string name = operation->get<std::string>();
    const auto& known = known_operations();
    if (std::find(known.begin(), known.end(), name) == known.end())
        return "unknown \"Operation\" \"" + name + "\" (expected \"PCIe Margin\", \"HVL Destructive Margin\" or \"EyeScan\")";
    const auto runner = TestRunnerRegistry::get().find(name);
    if (!runner) return "\"" + name + "\" tests can't run in this version of the service yet";
    return runner->check_record(test, store);
}
