// Keeps internal reports out of casual reading: a reversible, keyless
// letter substitution with random choices inside each class, so the same
// text hides to different bytes. It is no security. Hidden text has the
// length of the plain text, position by position.
//
// Hiding: letters lose their case; "e" becomes one of "A".."J"; "a", "i",
// "o", "u" one of four letters from "K", "O", "S", "W"; a comma one of the
// comma symbols; a line feed or carriage return one of the line symbols;
// any other byte its code less 1. Extraction reverses that, giving "e",
// "a"..., a comma and a line feed.
//
// The symbols are the control bytes 0x01-0x04 (comma) and 0x05, 0x06 (line):
// outside every range above and absent from report text. The bytes 0x02-
// 0x07 and "[" don't survive a round trip (they hide onto a symbol or "Z");
// reports carry none of them.
//
// Random choices come from a generator per thread, seeded once from the
// system's entropy: two calls in the same second still hide differently,
// and threads never share generator state.
#pragma once

#include <cstddef>
#include <string>

class ObfuscateData {
public:
    void hide_data(const std::string& in, std::string& out) const;
    void extract_data(const std::string& in, std::string& out) const;
    std::string extract_data(const std::string& in) const;
    void extract_data(const char* in, std::size_t size, std::string& out) const;
};

// Command handler: "-input=<file>" "-output=<file>"; turns a hidden file
// back into text, line by line. 0 on success, 1 when an argument is missing
// or a file can't be opened (the reason is printed).
int deobfuscate_the_file(int argc, char** argv);
