# On removal the uninstall actions delete, from the machine's stores, every server certificate issued by the
# root they name ("MY") and one root of that name ("Root"). The certificates are made by OpenSSL and placed
# with the test tool beforehand; another issuer's certificate and a second root of the name stay. The install,
# with nothing switched on, runs none of the DLL.
root="Quillcast E2E Uninstall Root" other="Quillcast E2E Other Root" ours="Quillcast E2E (Uninstall|Other) Root"
certificate Root "$root" root1
certificate Root "$root" root2
certificate - "$other" other
certificate MY server-one leaf1 root1
certificate MY server-two leaf2 root2
certificate MY server-other leaf3 other
expect_store MY "$ours" "server-one|$root" "server-other|$other" "server-two|$root"
# What the removal must leave goes at the case's end.
on_exit "$certificate_tool" remove MY "$other"
on_exit "$certificate_tool" remove Root "$root"

package include -D Name=Certificates
install
expect_no_dll_line "*(#)*"
uninstall QC_UNINSTALL_SIGNED_CERTIFICATE=1 QC_UNINSTALL_SIGNED_CERTIFICATE_ROOTCERTNAME="$root" \
    QC_UNINSTALL_ROOT_CERTIFICATE=1 QC_UNINSTALL_ROOT_CERTIFICATE_ROOTCERTNAME="$root"
expect_no_dll_line "*CertStore (*"
expect_store MY "$ours" "server-other|$other"
expect_store Root "$ours" "$root|$root"
expect_removed 'E2E\Certificates'
