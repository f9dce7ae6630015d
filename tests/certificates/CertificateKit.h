#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <set>
#include <string>
#include <vector>

namespace QcTest {

// The names of the key containers of the machine key set or the user's.
std::set<std::string> KeyContainers(bool machine);

// One certificate of a store, as the tests compare them.
struct StoredCertificate
{
    std::wstring thumbprint; // SHA-1, hex
    std::wstring subject;    // simple display name
    std::wstring issuer;     // simple display name of the issuer
    std::vector<BYTE> der;
    std::wstring container; // from the key-provider property; empty without one
    bool machineKey = false;
};

// Every certificate of the local machine's system store `store` ("Root", "MY").
std::vector<StoredCertificate> MachineCertificates(const wchar_t* store);
// Those whose subject is `subject`.
std::vector<StoredCertificate> MachineCertificates(const wchar_t* store, const std::wstring& subject);
// Removes the certificates with these thumbprints from the machine store, and
// their key containers, committing the store.
void RemoveMachineCertificates(const wchar_t* store, const std::set<std::wstring>& thumbprints);
std::set<std::wstring> Thumbprints(const std::vector<StoredCertificate>& certificates);

// Adds `der` to the local machine's store (committed); false on failure.
bool AddMachineCertificate(const wchar_t* store, const std::vector<BYTE>& der);

// A self-signed certificate with a new key in the user's key set (container
// `container`, Base provider, signature key), valid from `from` to `to`, with
// no extensions; CertCreateSelfSignCertificate as Windows documents it.
std::vector<BYTE> MakeSelfSigned(const std::wstring& commonName, const std::wstring& container, const SYSTEMTIME& from,
                                 const SYSTEMTIME& to);

// The build's folder for certificate files the OpenSSL check reads.
std::wstring OutputFolder();
bool WriteFile(const std::wstring& path, const std::vector<BYTE>& bytes);

// The date `years` after `time` (same month, day and time of day).
SYSTEMTIME AddYears(SYSTEMTIME time, int years);
SYSTEMTIME UtcNow();

} // namespace QcTest
