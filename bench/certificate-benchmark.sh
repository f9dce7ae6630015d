#!/usr/bin/env bash
# Prints, in one run on this machine, the time the certificate actions take to
# create and install a root and a server certificate under Wine, beside the
# time `openssl req -x509 -newkey rsa:2048` takes for a comparable self-signed
# certificate. Measures only, asserts nothing.
#   bench/certificate-benchmark.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
rounds=${2:-5}
"$root/scripts/wine-prefix.sh" create "$build/wine" >/dev/null
trap '"$root/scripts/wine-prefix.sh" stop "$build/wine"' EXIT

QC_BIN_DIR=$build/bin "$root/scripts/wine-run.sh" "$build/bin/QcCertificateBenchmark.exe" "$rounds"

work=$(mktemp -d)
times=()
for _ in $(seq "$rounds"); do
    start=$(date +%s%N)
    openssl req -x509 -newkey rsa:2048 -nodes -md5 -days 18628 -subj "/CN=Quillcast Benchmark Root" \
        -addext "basicConstraints=CA:TRUE,pathlen:1" -addext "keyUsage=digitalSignature,nonRepudiation,keyCertSign,cRLSign" \
        -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null
    times+=($(( ($(date +%s%N) - start) / 100000 )))
done
rm -rf "$work"
printf '%s\n' "${times[@]}" | sort -n | awk -v n="$rounds" '{ t[NR] = $1 / 10 }
    END { printf "%-44s median %8.1f ms  min %8.1f ms  max %8.1f ms  (%d rounds)\n",
          "openssl req -x509 -newkey rsa:2048", t[int((n + 1) / 2)], t[1], t[n], n }'
