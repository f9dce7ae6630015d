#!/usr/bin/env bash
# scripts/release.sh as a maintainer runs it without a certificate, in a copy
# of the tree in another folder (other folders for the sources and the build):
# the bundle holds its files, SHA256SUMS checks, the signature verifies with
# the test CA and with no other, the bundled DLL exports the thirty actions
# (the script checks it), and the unsigned DLL and its .debug file are byte for
# byte those of this build tree: two builds of one commit in two folders agree.
#   release-bundle.sh SOURCE_DIR BUILT_DLL
set -uo pipefail
source_dir=$1 built=$2
work=$(mktemp -d /tmp/qc-release.XXXXXX)
trap 'rm -rf "$work"' EXIT
failures=0
check() { # check WHAT COMMAND...
    local what=$1
    shift
    if "$@" >"$work/out" 2>&1; then
        echo "ok    $what"
    else
        echo "FAIL  $what:"; sed 's/^/      /' "$work/out" | head -20
        failures=$((failures + 1))
    fi
}
mkdir "$work/tree"
tar -C "$source_dir" --exclude=./build --exclude='./build-*' --exclude=./dist --exclude=./.git -cf - . |
    tar -C "$work/tree" -xf -
if ! QC_RELEASE_BUILD_DIR=$work/build "$work/tree/scripts/release.sh" >"$work/release.log" 2>&1; then
    echo "FAIL  scripts/release.sh:"; sed 's/^/      /' "$work/release.log"
    exit 1
fi
sed 's/^/      /' "$work/release.log"
bundle=$(ls -d "$work"/tree/dist/Quillcast.Common.System-*/)
dll=$bundle/Quillcast.Common.System.dll
ca=${bundle%/}.test-ca.pem
expected="BUILDINFO QcActionRunner.exe QcPackageCheck.exe QcLogRead.exe Quillcast.Common.System.dll
    Quillcast.Common.System.dll.debug SHA256SUMS actions.md authoring.md tools.md Quillcast.Common.System.wxi
    Quillcast.Common.System.Fragment.wxs fix-rollback-types.sh"
check "the bundle holds its files" test "$(ls "$bundle" | sort | xargs)" = "$(xargs -n1 <<<"$expected" | sort | xargs)"
check "the script says it signed with a test certificate" grep -q 'TEST certificate' "$work/release.log"
check "SHA256SUMS" bash -c "cd '$bundle' && sha256sum --quiet -c SHA256SUMS"
check "the signature verifies with the test CA" osslsigncode verify -CAfile "$ca" -in "$dll"
check "the signature does not verify with the system's CAs" bash -c "! osslsigncode verify -in '$dll'"
check "the unsigned DLL is this build's" cmp "$built" "$work/build/bin/Quillcast.Common.System.dll"
check "the .debug file is this build's" cmp "$built.debug" "$bundle/Quillcast.Common.System.dll.debug"
digest=$(sha256sum "$built" | cut -d' ' -f1)
check "BUILDINFO names the unsigned DLL's digest" grep -q "sha256 $digest" "$bundle/BUILDINFO"
[ $failures -eq 0 ] && echo "PASSED" || echo "FAILED: $failures checks"
exit $((failures != 0))
