#include "random.h"

namespace far {

uint32_t draw(std::mt19937& generator)
{
    return static_cast<uint32_t>(generator());
}

double draw_double(std::mt19937& generator)
{
    return std::generate_canonical<double, 53>(generator);
}

double draw_double32(std::mt19937& generator)
{
    return static_cast<double>(generator()) * 0x1p-32;
}

void seed(std::mt19937& generator, uint32_t seed)
{
    generator.seed(seed);
}

} // namespace far
