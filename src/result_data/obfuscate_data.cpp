#include "result_data/obfuscate_data.h"

#include <cctype>
#include <fstream>
#include <iostream>
#include <random>

namespace {

constexpr char kCommaSymbols[4] = {'\x01', '\x02', '\x03', '\x04'};
constexpr char kLineSymbols[2] = {'\x05', '\x06'};

std::mt19937& generator() {
    thread_local std::mt19937 engine(std::random_device{}());
    return engine;
}

unsigned pick(unsigned count) { return std::uniform_int_distribution<unsigned>(0, count - 1)(generator()); }

template <std::size_t N>
bool is_one_of(char c, const char (&symbols)[N]) {
    for (char s : symbols)
        if (s == c) return true;
    return false;
}

char hide_one(char plain) {
    const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(plain)));
    switch (c) {
    case 'e': return static_cast<char>('A' + pick(10));
    case 'a': return static_cast<char>('K' + pick(4));
    case 'i': return static_cast<char>('O' + pick(4));
    case 'o': return static_cast<char>('S' + pick(4));
    case 'u': return static_cast<char>('W' + pick(4));
    case ',': return kCommaSymbols[pick(4)];
    case '\n':
    case '\r': return kLineSymbols[pick(2)];
    default: return static_cast<char>(static_cast<unsigned char>(c) - 1);
    }
}

char extract_one(char hidden) {
    if (hidden >= 'A' && hidden <= 'J') return 'e';
    if (hidden >= 'K' && hidden <= 'N') return 'a';
    if (hidden >= 'O' && hidden <= 'R') return 'i';
    if (hidden >= 'S' && hidden <= 'V') return 'o';
    if (hidden >= 'W' && hidden <= 'Z') return 'u';
    if (is_one_of(hidden, kCommaSymbols)) return ',';
    if (is_one_of(hidden, kLineSymbols)) return '\n';
    return static_cast<char>(static_cast<unsigned char>(hidden) + 1);
}

void print_usage() { std::cout << "-deobfuscate -input=<input file path> -outut=<output file path>" << std::endl; }

// The text after `prefix` of the first argument that starts with it.
bool argument_value(int argc, char** argv, const std::string& prefix, std::string& value) {
    for (int i = 0; i < argc; ++i) {
        if (!argv[i]) continue;
        const std::string argument = argv[i];
        if (argument.rfind(prefix, 0) == 0) {
            value = argument.substr(prefix.size());
            return true;
        }
    }
    return false;
}

}  // namespace

void ObfuscateData::hide_data(const std::string& in, std::string& out) const {
    out.clear();
    out.resize(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) out[i] = hide_one(in[i]);
}

void ObfuscateData::extract_data(const char* in, std::size_t size, std::string& out) const {
    out.clear();
    out.resize(size);
    for (std::size_t i = 0; i < size; ++i) out[i] = extract_one(in[i]);
}

void ObfuscateData::extract_data(const std::string& in, std::string& out) const {
    extract_data(in.data(), in.size(), out);
}

std::string ObfuscateData::extract_data(const std::string& in) const {
    std::string out;
    extract_data(in.data(), in.size(), out);
    return out;
}

int deobfuscate_the_file(int argc, char** argv) {
    std::string input, output;
    if (!argument_value(argc, argv, "-input=", input)) {
        std::cout << "Provide input file path" << std::endl;
        print_usage();
        return 1;
    }
    if (!argument_value(argc, argv, "-output=", output)) {
        std::cout << "Provide output file path" << std::endl;
        print_usage();
        return 1;
    }
    std::ifstream in(input, std::ios::binary);
    if (!in) {
        std::cout << "Error: Unable to open file:" << input << std::endl;
        std::cout << "       Provide the file path, either absolute file path or relative file path." << std::endl;
        return 1;
    }
    std::ofstream out(output, std::ios::binary | std::ios::trunc);
    if (!out) {
        std::cout << "Error: Unable to open file " << output << std::endl;
        return 1;
    }
    const ObfuscateData obfuscate;
    std::string line, text;
    while (std::getline(in, line)) {
        obfuscate.extract_data(line, text);
        out << text << '\n';
    }
    return 0;
}
