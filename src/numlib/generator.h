// The numerical library's random generator. The run seeds it; nothing in the
// run draws from it, so only the seeding is provided.
#pragma once

// Seeds the generator with two seeds (each in 1..2147483562 is valid).
void setall(long seed1, long seed2);
