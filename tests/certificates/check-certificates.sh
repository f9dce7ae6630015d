#!/usr/bin/env bash
# OpenSSL's judgement of the certificates qc_certificate_tests wrote as DER into
# DIR: root.der and server.der (the actions' root and server certificate),
# purposes.der (the engine with purposes 0x11 and sha1RSA). Every field and
# extension is checked against what the engine must make; the server
# certificate must chain to the root. The files are removed afterwards, so
# that only a fresh test run can satisfy the next check.
#   check-certificates.sh DIR
set -uo pipefail
dir=${1:?usage: check-certificates.sh DIR}
failures=0
trap 'rm -f "$dir"/root.der "$dir"/server.der "$dir"/purposes.der "$dir"/*.pem "$dir"/aki.bin' EXIT

pass() { echo "  ok    $*"; }
fail() { echo "  FAIL  $*"; failures=$((failures + 1)); }

# expect_eq WHAT EXPECTED ACTUAL
expect_eq() {
    if [ "$2" = "$3" ]; then pass "$1: $3"; else fail "$1: expected '$2', found '$3'"; fi
}

text() { openssl x509 -inform DER -in "$dir/$1" -noout -text; }
# The value line that follows an extension's heading.
extension() { text "$1" | awk -v h="$2" 'found { sub(/^ +/, ""); print; exit } index($0, h) { found = 1 }'; }
# The extensions' headings in certificate order.
extension_order() {
    text "$1" | awk '/X509v3 extensions:/ { on = 1; next } /Signature Algorithm/ { on = 0 }
        on && /^            [^ ]/ { sub(/^ +/, ""); sub(/: *(critical)?$/, ""); print }' | paste -sd, -
}
field() { openssl x509 -inform DER -in "$dir/$1" -noout "$2" | sed 's/^[^=]*=//'; }
epoch() { date -u -d "$1" +%s; }

# The old authority key identifier (2.5.29.1) as OpenSSL parses its DER: key id
# [0], issuer name [1] and serial number [2].
old_authority_key_id() {
    local offset
    offset=$(openssl asn1parse -inform DER -in "$dir/$1" | awk '/:2\.5\.29\.1$/ { getline; sub(/:.*/, ""); gsub(/ /, ""); print; exit }')
    [ -n "$offset" ] && openssl asn1parse -inform DER -in "$dir/$1" -strparse "$offset" -out "$dir/aki.bin" -noout >/dev/null &&
        openssl asn1parse -inform DER -in "$dir/aki.bin"
}
# content_hex FILE LINE: the content octets of the element that asn1parse LINE
# of FILE describes, as upper-case hex.
content_hex() {
    local file=$1 line=$2 start
    start=$(( $(sed -E 's/^ *([0-9]+):.*/\1/' <<<"$line") + $(sed -E 's/.*hl=([0-9]+).*/\1/' <<<"$line") ))
    od -An -tx1 -v -j "$start" -N "$(sed -E 's/.* l= *([0-9]+).*/\1/' <<<"$line")" "$file" | tr -d ' \n' | tr a-f A-F
}
# The identifier's primitive part [N].
authority_part() {
    local line
    line=$(old_authority_key_id "$1" | grep "prim: cont \[ $2 \]") || return 0
    content_hex "$dir/aki.bin" "$line"
}
# The serial number's content octets (the first INTEGER of the to-be-signed part).
serial_hex() {
    content_hex "$dir/$1" "$(openssl asn1parse -inform DER -in "$dir/$1" | grep -m1 'd=2 .*prim: INTEGER')"
}

check_common() {
    local file=$1 bits=$2 usage=$3 constraints=$4
    local heading before after
    echo "$file"
    expect_eq "version" "Version: 3 (0x2)" "$(text "$file" | grep -o 'Version: .*')"
    expect_eq "signature algorithm" "md5WithRSAEncryption" "$(text "$file" | awk '/Signature Algorithm:/ { print $3; exit }')"
    expect_eq "key size" "Public-Key: ($bits bit)" "$(text "$file" | grep -o 'Public-Key: .*')"
    expect_eq "extensions in order" "X509v3 Subject Key Identifier,X509v3 Key Usage,X509v3 Basic Constraints,2.5.29.1" "$(extension_order "$file")"
    expect_eq "nothing critical" "0" "$(text "$file" | grep -c critical)"
    expect_eq "key usage" "$usage" "$(extension "$file" "X509v3 Key Usage")"
    expect_eq "basic constraints" "$constraints" "$(extension "$file" "X509v3 Basic Constraints")"
    before=$(field "$file" -startdate)
    after=$(field "$file" -enddate)
    # The record was initialised a moment before the certificate was made.
    local gap=$(($(epoch "$after") - $(epoch "$before + 51 years")))
    if [ "$gap" -le 0 ] && [ "$gap" -ge -5 ]; then
        pass "valid 51 years: $before .. $after"
    else
        fail "valid 51 years: $before .. $after (off by $gap s)"
    fi
}

if [ ! -f "$dir/root.der" ] || [ ! -f "$dir/server.der" ] || [ ! -f "$dir/purposes.der" ]; then
    echo "check-certificates: the DER files are missing in $dir; run qc_certificate_tests first" >&2
    exit 1
fi

check_common root.der 2048 "Digital Signature, Non Repudiation, Certificate Sign, CRL Sign" "CA:TRUE, pathlen:1"
root_subject=$(field root.der -subject)
expect_eq "root subject" "CN = Quillcast Chain Root" "$root_subject"
expect_eq "root issuer is itself" "$root_subject" "$(field root.der -issuer)"
root_key_id=$(extension root.der "X509v3 Subject Key Identifier" | tr -d ':')
root_serial=$(serial_hex root.der)
expect_eq "root's old authority key id names its own key" "$root_key_id" "$(authority_part root.der 0)"
expect_eq "root's old authority key id names its issuer" "1" "$(old_authority_key_id root.der | grep -c ':Quillcast Chain Root$')"
expect_eq "root's old authority key id names its own serial" "$root_serial" "$(authority_part root.der 2)"

check_common server.der 1024 "Digital Signature, Key Encipherment, Data Encipherment, Key Agreement" "CA:FALSE"
expect_eq "server subject" "CN = $(hostname)" "$(field server.der -subject)"
expect_eq "server issuer" "$root_subject" "$(field server.der -issuer)"
expect_eq "server's old authority key id names the root's key" "$root_key_id" "$(authority_part server.der 0)"
expect_eq "server's old authority key id names the root's issuer" "1" "$(old_authority_key_id server.der | grep -c ':Quillcast Chain Root$')"
expect_eq "server's old authority key id names the root's serial" "$root_serial" "$(authority_part server.der 2)"

openssl x509 -inform DER -in "$dir/root.der" -out "$dir/root.pem"
openssl x509 -inform DER -in "$dir/server.der" -out "$dir/server.pem"
expect_eq "server chains to the root" "$dir/server.pem: OK" "$(openssl verify -CAfile "$dir/root.pem" "$dir/server.pem" 2>&1)"

echo purposes.der
expect_eq "signature algorithm" "sha1WithRSAEncryption" "$(text purposes.der | awk '/Signature Algorithm:/ { print $3; exit }')"
expect_eq "extensions in order" "X509v3 Subject Key Identifier,X509v3 Key Usage,X509v3 Extended Key Usage,X509v3 Basic Constraints,2.5.29.1" "$(extension_order purposes.der)"
expect_eq "extended key usage" "TLS Web Server Authentication, Time Stamping" "$(extension purposes.der "X509v3 Extended Key Usage")"

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "all checks passed"
