#!/usr/bin/env bash
# Builds the release bundle dist/Quillcast.Common.System-<version>/: the signed
# DLL, its .debug file, the include and its Fragment variant, the reference,
# the action runner and SHA256SUMS. The version is the CMake project version.
#   scripts/release.sh
# Signing (osslsigncode, Authenticode, SHA-256):
#   QC_SIGN_PFX=<file.pfx> QC_SIGN_PASSWORD_FILE=<file holding the password>
#   (or QC_SIGN_PASSWORD=<password>), QC_SIGN_CA_FILE=<CA bundle that verifies
#   the certificate; default: the system's>, QC_SIGN_TIMESTAMP_URL=<RFC 3161
#   server; default: no time stamp>.
# Without QC_SIGN_PFX the DLL is signed with a test certificate made here, and
# the script says so: such a bundle is for trying the signing, not for shipping.
# QC_RELEASE_BUILD_DIR chooses the build folder (default build-release/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QC_RELEASE_BUILD_DIR:-$root/build-release}
name=Quillcast.Common.System
version=$(sed -n 's/^project(QuillcastCommonSystem VERSION \([0-9.]*\) .*/\1/p' "$root/CMakeLists.txt")
[ -n "$version" ] || { echo "release: no project version in CMakeLists.txt" >&2; exit 1; }
bundle=$root/dist/$name-$version
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$root/scripts/setup.sh"
if ! QC_BUILD_TESTS=OFF "$root/scripts/build.sh" "$build" QuillcastCommonSystem QcActionRunner QcPackageCheck QcLogRead >"$work/build.log" 2>&1
then
    cat "$work/build.log" >&2
    echo "release: the build failed" >&2
    exit 1
fi
dll=$build/bin/$name.dll

# Exactly the thirty exports of the action table.
exports_of() {
    x86_64-w64-mingw32-objdump -p "$1" |
        awk '/^\[Ordinal\/Name Pointer\] Table/ { on = 1; next } on && NF == 0 { on = 0 } on { print $NF }' | sort
}
expected=$(sed -n 's/^ *X(\([A-Za-z]*\), .*/\1/p' "$root/src/host/ActionTable.h" | sort)
check_exports() {
    if [ "$(wc -l <<<"$expected")" -ne 30 ] || [ "$(exports_of "$1")" != "$expected" ]; then
        echo "release: $1 does not export exactly the thirty actions:" >&2
        diff <(echo "$expected") <(exports_of "$1") >&2 || true
        exit 1
    fi
}
check_exports "$dll"

rm -rf "$bundle"
mkdir -p "$bundle"
cp "$dll.debug" "$build/bin/QcActionRunner.exe" "$build/bin/QcPackageCheck.exe" "$build/bin/QcLogRead.exe" \
    "$root/docs/actions.md" "$bundle/"
# The tools ship without their symbols, as the DLL does (same time-stamp rule).
SOURCE_DATE_EPOCH=0 x86_64-w64-mingw32-strip --strip-all "$bundle/QcActionRunner.exe" "$bundle/QcPackageCheck.exe" \
    "$bundle/QcLogRead.exe"
for file in authoring/$name.wxi authoring/$name.Fragment.wxs authoring/fix-rollback-types.sh docs/authoring.md \
    docs/tools.md; do
    if [ -f "$root/$file" ]; then
        cp "$root/$file" "$bundle/"
    else
        echo "release: $file is missing, the bundle goes without it" >&2
    fi
done

# Signing. The signature is the only difference between the bundled DLL and
# the reproducible build: the unsigned DLL's digest goes into BUILDINFO.
if [ -n "${QC_SIGN_PFX:-}" ]; then
    pfx=$QC_SIGN_PFX
    if [ -n "${QC_SIGN_PASSWORD_FILE:-}" ]; then
        password_file=$QC_SIGN_PASSWORD_FILE
    else
        password_file=$work/password
        (umask 077; printf '%s' "${QC_SIGN_PASSWORD:-}" >"$password_file")
    fi
    ca_file=${QC_SIGN_CA_FILE:-/etc/ssl/certs/ca-certificates.crt}
    signer="the certificate in $pfx"
    signed_by=$(basename "$pfx")
else
    cat >&2 <<EOF
********************************************************************************
release: QC_SIGN_PFX is not set: signing with a TEST certificate made just now.
release: Windows will not trust this signature. Do not ship this bundle.
********************************************************************************
EOF
    password_file=$work/password
    (umask 077; openssl rand -hex 16 >"$password_file")
    openssl req -x509 -newkey rsa:3072 -nodes -days 30 -subj "/CN=$name Test Signing CA" \
        -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign \
        -keyout "$work/ca.key" -out "$work/ca.pem" 2>/dev/null
    openssl req -newkey rsa:3072 -nodes -subj "/CN=$name Test Code Signing" \
        -keyout "$work/signer.key" -out "$work/signer.csr" 2>/dev/null
    printf '%s\n' basicConstraints=CA:FALSE keyUsage=critical,digitalSignature extendedKeyUsage=codeSigning \
        >"$work/signer.ext"
    openssl x509 -req -in "$work/signer.csr" -CA "$work/ca.pem" -CAkey "$work/ca.key" -CAcreateserial -days 30 \
        -extfile "$work/signer.ext" -out "$work/signer.pem" 2>/dev/null
    pfx=$work/signer.pfx
    openssl pkcs12 -export -inkey "$work/signer.key" -in "$work/signer.pem" -certfile "$work/ca.pem" \
        -passout "file:$password_file" -out "$pfx"
    # The test CA stays beside the bundle, not in it, so the signature can be checked again.
    ca_file=$root/dist/$name-$version.test-ca.pem
    cp "$work/ca.pem" "$ca_file"
    signer="a TEST certificate (CA: $ca_file)"
    signed_by="a TEST certificate"
fi
timestamp=()
[ -z "${QC_SIGN_TIMESTAMP_URL:-}" ] || timestamp=(-ts "$QC_SIGN_TIMESTAMP_URL")
osslsigncode sign -pkcs12 "$pfx" -readpass "$password_file" -h sha256 -n "$name $version" \
    "${timestamp[@]}" -in "$dll" -out "$bundle/$name.dll" >/dev/null
osslsigncode verify -CAfile "$ca_file" -in "$bundle/$name.dll" >"$work/verify.txt" 2>&1 || {
    cat "$work/verify.txt" >&2
    echo "release: the signature does not verify" >&2
    exit 1
}
check_exports "$bundle/$name.dll"

commit=$(git -C "$root" rev-parse HEAD 2>/dev/null || echo unknown)
git -C "$root" diff --quiet HEAD 2>/dev/null || commit="$commit (with uncommitted changes)"
{
    echo "version $version"
    echo "commit $commit"
    echo "unsigned $name.dll sha256 $(sha256sum "$dll" | cut -d' ' -f1)"
    echo "signed by $signed_by"
} >"$bundle/BUILDINFO"
(cd "$bundle" && sha256sum $(ls | grep -vx SHA256SUMS) >SHA256SUMS)

echo "release: $bundle, signed with $signer and verified:"
(cd "$bundle" && ls -l --time-style=+ | awk 'NR > 1 { printf "  %10d  %s\n", $5, $NF }')
