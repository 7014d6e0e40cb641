// The numerical library's own random generator. The run seeds it; nothing in
// the run draws from it yet.
#pragma once

// Seeds the generator with two seeds (each in 1..2147483562 is valid).
void setall(long seed1, long seed2);

// A uniform deviate in (0, 1) from the seeded generator.
double generator_uniform();
