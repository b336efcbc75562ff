// The standard library's Mersenne Twister beyond a library's boundary, where the others' are.
#pragma once

#include <cstdint>
#include <random>

namespace far {

uint32_t draw(std::mt19937& generator);
double draw_double(std::mt19937& generator);   // of 53 bits, from two words
double draw_double32(std::mt19937& generator); // of 32 bits, from one word
void seed(std::mt19937& generator, uint32_t seed);

} // namespace far
