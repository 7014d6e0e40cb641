// The pair arithmetic that the CPU kernel and the GPU engine share, and must
// do alike bit for bit: the triangular layout, the limit below which a total
// is rescaled, and the transition step. Read by g++ and by nvcc (host and
// device code alike).
#pragma once

#include <cstddef>

#if defined(__CUDACC__)
#define KETRA_HD __host__ __device__ inline
#define KETRA_HD_INLINE __host__ __device__ __forceinline__
#else
#define KETRA_HD inline
#define KETRA_HD_INLINE inline __attribute__((always_inline))
#endif

namespace pair_arith {

// Row i of a lower-triangular pair array starts at i(i+1)/2; K rows hold K(K+1)/2.
KETRA_HD std::size_t tri_offset(int i) { return static_cast<std::size_t>(i) * (i + 1) / 2; }
KETRA_HD std::size_t tri_size(int K) { return static_cast<std::size_t>(K) * (K + 1) / 2; }

// A total below this is rescaled to keep the values away from underflow.
constexpr double underflow_limit = 1e-100;

// A transition step's coefficients: aa = a*a, ab = a*b, bbt = b*b*total with
// a = stay - jump, b = jump.
struct Coefficients {
    double aa, ab, bbt;
};

KETRA_HD Coefficients coefficients(double stay, double jump, double total) {
    double const a = stay - jump;
    double const b = jump;
    return {a * a, a * b, b * b * total};
}

// One transition step for pair {i, j}: ((R(i) + R(j)) * ab + bbt) + aa * old;
// for one value, or for several side by side (C's aa, ab and bbt then hold
// the coefficients in every lane).
template <class V, class C>
KETRA_HD_INLINE V step_value(V ri, V rj, V old, C const& c) {
    return ((ri + rj) * c.ab + c.bbt) + c.aa * old;
}

}  // namespace pair_arith
