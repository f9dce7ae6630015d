// Machine certificate stores and key containers for the end-to-end cases:
//   QcCertStoreTool add STORE FILE.der    adds the certificate (committed)
//   QcCertStoreTool list STORE            prints "subject|issuer" per certificate
//   QcCertStoreTool remove STORE NAME     removes every certificate whose subject or issuer is NAME
//   QcCertStoreTool containers            prints the key containers, "machine:" or "user:" first
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "certificates/CertificateKit.h"

int wmain(int argc, wchar_t** argv)
{
    using namespace QcTest;
    const std::wstring command = argc > 1 ? argv[1] : L"";
    if (argc == 4 && command == L"add")
    {
        std::ifstream file(std::filesystem::path(argv[3]), std::ios::binary);
        const std::vector<BYTE> der{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        const CCertStoreHandle hStore = OpenMachineStore(argv[2]);
        const bool added =
            file &&
            ::CertAddEncodedCertificateToStore(hStore.Get(), X509_ASN_ENCODING, der.data(),
                                               static_cast<DWORD>(der.size()), CERT_STORE_ADD_NEW, nullptr) &&
            ::CertControlStore(hStore.Get(), 0, CERT_STORE_CTRL_COMMIT, nullptr);
        return added ? 0 : 1;
    }
    if (argc == 3 && command == L"list")
    {
        for (const StoredCertificate& certificate : MachineCertificates(argv[2]))
        {
            std::wprintf(L"%ls|%ls\n", certificate.subject.c_str(), certificate.issuer.c_str());
        }
        return 0;
    }
    if (argc == 4 && command == L"remove")
    {
        RemoveCertificates(OpenMachineStore(argv[2]).Get(), argv[3]);
        return 0;
    }
    if (argc == 2 && command == L"containers")
    {
        for (const std::string& name : KeyContainers())
        {
            std::printf("%s\n", name.c_str());
        }
        return 0;
    }
    std::fputws(L"usage: QcCertStoreTool add STORE FILE | list STORE | remove STORE NAME | containers\n", stderr);
    return 2;
}
