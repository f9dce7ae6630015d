#pragma once

#include <windows.h>
#include <wincrypt.h>

#include "host/types/WideString.h"

namespace Quillcast::Certificates {

// Names of certificates as the stores compare them. Each result is empty after
// a failure, which is logged (source "CertName") with the thread's last error.
class CCertName
{
public:
    // The subject's simple display name (CertGetNameStringW,
    // CERT_NAME_SIMPLE_DISPLAY_TYPE, without the IE4 UTF-8 handling); empty
    // without a message for a null certificate.
    static System::Types::CWideBuffer OfSubject(PCCERT_CONTEXT pCertificate) noexcept;
    // An encoded name as a simple name string (CertNameToStrW,
    // CERT_SIMPLE_NAME_STR): a name made of a common name alone reads as that
    // name, without "CN=".
    static System::Types::CWideBuffer OfEncodedName(const CERT_NAME_BLOB& name) noexcept;
};

} // namespace Quillcast::Certificates
