#!/usr/bin/env bash
# Installs, on a Debian machine as root, what building and testing Ketra needs.
# Only packages that are missing are installed; a machine that has them all is left alone.
set -euo pipefail

packages=(cmake g++ make libboost-iostreams-dev libboost-filesystem-dev
          libboost-system-dev zlib1g-dev libgtest-dev
          pkg-config libdeflate-dev  # compressed pardo files
          libhts-dev  # ketra-prep reads VCF/BCF with htslib
          snakemake  # split runs on a cluster
          munge slurmctld slurmd slurm-client  # the one-node Slurm of the workflow test (scripts/slurm)
          bcftools plink2 python3-matplotlib python3-numpy  # ketra-prep and ketra-plot
          clang libclang-rt-dev)  # clang and its runtime libraries: the libFuzzer targets

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
