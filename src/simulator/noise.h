// Seeded noise for the model.
//
// Values are a pure function of the seed and a key (device, lane, step,
// sample...), never drawn from a shared sequence: which thread asks first
// must not change what anyone gets, or results would depend on scheduling.
#pragma once

#include <cmath>
#include <cstdint>
#include <initializer_list>

namespace sim {

class Noise {
public:
    explicit Noise(uint64_t seed) : _seed(seed) {}

    uint64_t seed() const { return _seed; }

    uint64_t bits(std::initializer_list<uint64_t> key) const {
        uint64_t h = mix(_seed ^ 0x6A09E667F3BCC909ull);
        for (uint64_t part : key) h = mix(h ^ mix(part + 0x9E3779B97F4A7C15ull));
        return h;
    }
    // Uniform in [0, 1).
    double uniform(std::initializer_list<uint64_t> key) const {
        return static_cast<double>(bits(key) >> 11) * (1.0 / 9007199254740992.0);
    }
    // Standard normal (Box-Muller over two values derived from the key).
    double normal(std::initializer_list<uint64_t> key) const {
        const uint64_t h = bits(key);
        const double u1 = (static_cast<double>(mix(h) >> 11) + 1.0) * (1.0 / 9007199254740993.0);
        const double u2 = static_cast<double>(mix(h ^ 0xD1B54A32D192ED03ull) >> 11) * (1.0 / 9007199254740992.0);
        return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
    }

private:
    // splitmix64 finaliser
    static uint64_t mix(uint64_t z) {
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint64_t _seed;
};

}  // namespace sim
