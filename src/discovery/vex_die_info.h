// One die of the platform: a CPU, GPU or APU die with its place in the machine.
#pragma once

#include <string>

struct VEX_DIE_INFO {
    bool is_cpu = false;
    bool is_gpu = false;
    bool is_apu = false;
    std::string die_name;
    unsigned socket_index = 0;
    unsigned die_index = 0;

    std::string name() const { return die_name; }
    std::string full_name() const {
        return die_name + "_S" + std::to_string(socket_index) + "D" + std::to_string(die_index);
    }
    unsigned socket() const { return socket_index; }
    unsigned die() const { return die_index; }
};
