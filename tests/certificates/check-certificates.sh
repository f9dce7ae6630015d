#!/usr/bin/env bash
# OpenSSL's judgement of the certificates qc_certificate_tests wrote as DER into DIR: root.der and server.der
# (the actions' root and server certificate), purposes.der (the engine with purposes 0x11 and sha1RSA): every field
# and extension, and the server's chain to the root. The files are removed afterwards, so that only a fresh test
# run can satisfy the next check.
set -uo pipefail
dir=${1:?usage: check-certificates.sh DIR}
failures=0
trap 'rm -f "$dir"/root.der "$dir"/server.der "$dir"/purposes.der' EXIT

# expect_eq WHAT EXPECTED ACTUAL
expect_eq() {
    if [ "$2" = "$3" ]; then
        echo "  ok    $1: $3"
    else
        echo "  FAIL  $1: expected '$2', found '$3'"
        failures=$((failures + 1))
    fi
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
hex() { od -An -tx1 -v | tr -d ' \n' | tr a-f A-F; }

exchange="Digital Signature, Key Encipherment, Data Encipherment, Key Agreement"
# check FILE SIGNATURE KEY-BITS KEY-USAGE BASIC-CONSTRAINTS SUBJECT YEARS [EXTENSIONS-BEFORE-BASIC-CONSTRAINTS]
check() {
    local before after gap
    echo "$1"
    expect_eq "version" "Version: 3 (0x2)" "$(text "$1" | grep -o 'Version: .*')"
    expect_eq "signature algorithm" "$2" "$(text "$1" | awk '/Signature Algorithm:/ { print $3; exit }')"
    expect_eq "key size" "Public-Key: ($3 bit)" "$(text "$1" | grep -o 'Public-Key: .*')"
    expect_eq "extensions in order" "X509v3 Subject Key Identifier,X509v3 Key Usage,${8:-}X509v3 Basic Constraints,2.5.29.1" \
        "$(extension_order "$1")"
    expect_eq "nothing critical" "0" "$(text "$1" | grep -c critical)"
    expect_eq "key usage" "$4" "$(extension "$1" "X509v3 Key Usage")"
    expect_eq "basic constraints" "$5" "$(extension "$1" "X509v3 Basic Constraints")"
    expect_eq "subject" "CN = $6" "$(field "$1" -subject)"
    before=$(field "$1" -startdate)
    after=$(field "$1" -enddate)
    # The record was initialised a moment before the certificate was made.
    gap=$(($(epoch "$after") - $(epoch "$before + $7 years")))
    expect_eq "valid $7 years ($before .. $after), seconds short" "ok" "$([ "$gap" -le 0 ] && [ "$gap" -ge -5 ] && echo ok || echo "$gap")"
}

check root.der md5WithRSAEncryption 2048 "Digital Signature, Non Repudiation, Certificate Sign, CRL Sign" \
    "CA:TRUE, pathlen:1" "Quillcast Chain Root" 51
check server.der md5WithRSAEncryption 1024 "$exchange" "CA:FALSE" "$(hostname)" 51
check purposes.der sha1WithRSAEncryption 2048 "$exchange" "CA:TRUE, pathlen:1" "Quillcast Engine Purposes" 1 \
    "X509v3 Extended Key Usage,"
expect_eq "extended key usage" "TLS Web Server Authentication, Time Stamping" "$(extension purposes.der "X509v3 Extended Key Usage")"
# Both name the root's key, its issuer (itself) and its serial number, the
# INTEGER after the version at the start of the to-be-signed part.
root_key_id=$(extension root.der "X509v3 Subject Key Identifier" | tr -d ':')
serial=$(hex <"$dir/root.der")
serial=${serial#*A003020102}
aki=8014${root_key_id}A121301F311D301B06035504031314$(printf 'Quillcast Chain Root' | hex)82${serial:2:$((16#${serial:2:2} * 2 + 2))}
for file in root.der server.der; do
    # The value of the old authority key identifier (2.5.29.1), as hex.
    found=$(openssl asn1parse -inform DER -in "$dir/$file" | awk '/:2\.5\.29\.1$/ { getline; sub(/.*DUMP\]:/, ""); print; exit }')
    expect_eq "$file: old authority key id (key, issuer, serial)" "30$(printf %02X $((${#aki} / 2)))$aki" "$found"
done

pem() { openssl x509 -inform DER -in "$dir/$1"; }
expect_eq "server chains to the root" "OK" "$(openssl verify -CAfile <(pem root.der) <(pem server.der) 2>&1 | sed 's/^.*: //')"

[ "$failures" -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
echo "all checks passed"
