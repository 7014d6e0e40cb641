#!/usr/bin/env bash
# Makes the folder that the device check runs from on a bare GPU machine
# (CUDA and CMake, no Boost, htslib or network): ketra, gpu_records_test and
# ketra_bench built portable (-DKETRA_NATIVE=OFF) with the GPU engine, every
# shared library they link apart from the C library and the NVIDIA driver, the
# example data and the check itself. Nothing in it needs a configure step or
# a path of this machine.
#
#   bash bench/gpu_carry.sh [build-dir] [carry-dir]   (default: build-carry gpu-carry)
#
# Then, on the device machine, from the folder's parent:
#   bash gpu-carry/bench/gpu_check.sh [work-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-carry}
carry=${2:-gpu-carry}
limit_mib=64

nvcc_path=$(command -v nvcc || true)
if [ -z "$nvcc_path" ] && [ -x /usr/local/cuda/bin/nvcc ]; then nvcc_path=/usr/local/cuda/bin/nvcc; fi
[ -n "$nvcc_path" ] || { echo "nvcc not found"; exit 1; }

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKETRA_NATIVE=OFF -DKETRA_CUDA=ON \
      -DCMAKE_CUDA_COMPILER="$nvcc_path" -DKETRA_TESTS=ON -DKETRA_BENCH=ON >/dev/null
cmake --build "$build" -j"${JOBS:-2}" --target ketra gpu_records_test ketra_bench >/dev/null

rm -rf "$carry"
mkdir -p "$carry/bin" "$carry/lib" "$carry/bench" "$carry/examples"
cp "$build/ketra" "$build/tests/gpu_records_test" "$build/bench/ketra_bench" "$carry/bin/"
strip "$carry/bin/"*
cp bench/gpu_check.sh "$carry/bench/"
cp -r examples/chr20-small "$carry/examples/"

# Every library the loader resolves for them, except the C library's own (the
# machine's loader must match them) and the driver's (the machine's kernel
# module must match it).
system_libs='^(linux-vdso|ld-linux|libc|libm|libpthread|libdl|librt|libresolv|libcuda|libnvidia)[.-]'
ldd "$carry/bin/"* | awk '$2 == "=>" && $3 ~ /^\// { print $1, $3 }' | sort -u |
    while read -r name path; do
        [[ $name =~ $system_libs ]] || cp -L "$path" "$carry/lib/$name"
    done
if ldd "$carry/bin/"* | grep -q "not found"; then
    echo "unresolved libraries:"; ldd "$carry/bin/"* | grep "not found"; exit 1
fi

size_kib=$(du -sk "$carry" | cut -f1)
echo "$carry: $((size_kib / 1024)) MiB ($(ls "$carry/lib" | wc -l) libraries: $(ls "$carry/lib" | tr '\n' ' '))"
if [ "$size_kib" -gt $((limit_mib * 1024)) ]; then echo "over the ${limit_mib} MiB a device call carries"; exit 1; fi
