# On removal the uninstall actions delete, from the machine's stores, every
# server certificate issued by the root E2E_ROOTCERTNAME ("MY") and one root of
# that name ("Root"). The certificates are made by OpenSSL and placed with the
# test tool beforehand; another issuer's certificate and a second root of the
# name stay.
root="Quillcast E2E Uninstall Root"
other="Quillcast E2E Other Root"
tool=$(windows_path "$QC_BIN_DIR/QcCertStoreTool.exe")
certs="$work_dir/certs"
mkdir -p "$certs"

# make_root NAME FILE / make_leaf SUBJECT ISSUER_FILE FILE: DER files.
make_root() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$2.key" -subj "/CN=$1" -days 30 -out "$2.pem" 2>/dev/null
    openssl x509 -in "$2.pem" -outform DER -out "$2.der"
}
make_leaf() {
    openssl req -newkey rsa:2048 -nodes -keyout "$3.key" -subj "/CN=$1" -out "$3.csr" 2>/dev/null
    openssl x509 -req -in "$3.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days 30 -outform DER -out "$3.der" 2>/dev/null
}
make_root "$root" "$certs/root1"
make_root "$root" "$certs/root2"
make_root "$other" "$certs/other"
make_leaf server-one "$certs/root1" "$certs/leaf1"
make_leaf server-two "$certs/root2" "$certs/leaf2"
make_leaf server-other "$certs/other" "$certs/leaf3"
for pair in Root:root1 Root:root2 MY:leaf1 MY:leaf2 MY:leaf3; do
    wine_run "$tool" add "${pair%%:*}" "$(windows_path "$certs/${pair#*:}.der")"
done

# expect_store STORE LINE...: exactly these "subject|issuer" lines (sorted) of the test's names.
expect_store() {
    expect_lines "$1 holds" "$(wine_run "$tool" list "$1" | tr -d '\r' |
        { grep -E "Quillcast E2E (Uninstall|Other) Root" || true; } | sort)" "${@:2}"
}
expect_store MY "server-one|$root" "server-other|$other" "server-two|$root"

package certificates
install E2E_ROOTCERTNAME="$root" E2E_CREATE=0
uninstall E2E_ROOTCERTNAME="$root"
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: UninstallSignedCertificate."
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: UninstallRootCertificate."
expect_no_dll_line "*CertStore (*"
expect_store MY "server-other|$other"
expect_store Root "$root|$root"
expect_no_reg 'HKLM\Software\Quillcast\E2E\Certificates'
expect_product_absent

wine_run "$tool" remove MY "$other" >/dev/null
wine_run "$tool" remove Root "$root" >/dev/null
expect_store MY
expect_store Root
