#include "numlib/generator.h"

namespace {
// Combined multiple recursive generator of L'Ecuyer (1988): two linear
// congruential streams whose difference has period about 2.3e18.
long state1 = 1234567890L;
long state2 = 123456789L;
}  // namespace

void setall(long seed1, long seed2) {
    // Map any seed into each stream's valid range 1..m-1.
    state1 = 1 + ((seed1 % 2147483562L) + 2147483562L) % 2147483562L;
    state2 = 1 + ((seed2 % 2147483398L) + 2147483398L) % 2147483398L;
}

double generator_uniform() {
    long k = state1 / 53668L;
    state1 = 40014L * (state1 - k * 53668L) - k * 12211L;
    if (state1 < 0) state1 += 2147483563L;
    k = state2 / 52774L;
    state2 = 40692L * (state2 - k * 52774L) - k * 3791L;
    if (state2 < 0) state2 += 2147483399L;
    long z = state1 - state2;
    if (z < 1) z += 2147483562L;
    return static_cast<double>(z) * 4.656613057e-10;
}
