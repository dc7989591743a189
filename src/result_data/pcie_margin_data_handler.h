// The CSV of a PCIe margin run: a header from the first lane object, then
// one line per lane object. The internal mode adds the receiver's
// equalisation and the best figure of merit, and any mode but the plain one
// hides each finished line (ObfuscateData) before writing it; the line feed
// that ends it stays a real one, so hidden files are still read line by line.
//
// Keys are looked up in the lane's object first and then in the first
// object, which alone carries the device's keys. A key absent from both
// raises the JSON library's exception for the caller to catch. Values print
// as they are: texts without quotes, numbers in their shortest form (floats
// with six significant digits), flags as "true"/"false". Groups that are
// absent print "Not Available," per cell: the VEX device cells when
// "VEXDevicePresent" isn't true, the receiver group when "RxEqValid" isn't
// true, and the transmitter groups whose "...Got" flags aren't all true.
//
// The static fields are taken from StaticDataHandler once, at the first
// line a handler writes, so the header and every row of one report agree
// even if another run changes the map meanwhile.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "result_data/data_handler.h"

class PCIEMarginDataHandler : public DataHandler {
public:
    explicit PCIEMarginDataHandler(ModesOfDumps mode);

    void dump_data(const nlohmann::json& element, const nlohmann::json& first, std::ostream& out) override;
    // The header needs the first lane object: prints and throws
    // "Unexpected scenario in PCIEMarginDataHandler::dump_header.".
    void dump_header(std::ostream& out) override;
    void dump_header(const nlohmann::json& first, std::ostream& out) override;
    void dump_4pt_data(const nlohmann::json& element, const nlohmann::json& first, std::ostream& out) override;
    // Prints and throws "Unexpected scenario in PCIEMarginDataHandler::dump_4pt_header.".
    void dump_4pt_header(std::ostream& out) override;
    void dump_4pt_header(const nlohmann::json& first, std::ostream& out) override;

private:
    // header: the column names; otherwise the values of `element`.
    std::string _line(const nlohmann::json* element, const nlohmann::json& first, bool four_point, bool header);

};
