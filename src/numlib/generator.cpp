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
