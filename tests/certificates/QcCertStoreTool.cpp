// Machine certificate stores and key containers for the end-to-end cases:
//   QcCertStoreTool add STORE FILE.der    adds the certificate (committed)
//   QcCertStoreTool list STORE            prints "subject|issuer" per certificate
//   QcCertStoreTool remove STORE NAME     removes every certificate whose subject or issuer is NAME
//   QcCertStoreTool containers            prints the key containers, "machine:" or "user:" first
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cwchar>
#include <vector>

#include "certificates/CertificateKit.h"

int wmain(int argc, wchar_t** argv)
{
    if (argc == 4 && std::wcscmp(argv[1], L"add") == 0)
    {
        FILE* file = _wfopen(argv[3], L"rb");
        if (file == nullptr)
        {
            return 2;
        }
        std::vector<BYTE> der;
        for (int ch = std::fgetc(file); ch != EOF; ch = std::fgetc(file))
        {
            der.push_back(static_cast<BYTE>(ch));
        }
        std::fclose(file);
        return QcTest::AddMachineCertificate(argv[2], der) ? 0 : 1;
    }
    if (argc == 3 && std::wcscmp(argv[1], L"list") == 0)
    {
        for (const QcTest::StoredCertificate& certificate : QcTest::MachineCertificates(argv[2]))
        {
            std::wprintf(L"%ls|%ls\n", certificate.subject.c_str(), certificate.issuer.c_str());
        }
        return 0;
    }
    if (argc == 4 && std::wcscmp(argv[1], L"remove") == 0)
    {
        std::set<std::wstring> thumbprints;
        for (const QcTest::StoredCertificate& certificate : QcTest::MachineCertificates(argv[2]))
        {
            if (certificate.subject == argv[3] || certificate.issuer == argv[3])
            {
                thumbprints.insert(certificate.thumbprint);
            }
        }
        QcTest::RemoveMachineCertificates(argv[2], thumbprints);
        return 0;
    }
    if (argc == 2 && std::wcscmp(argv[1], L"containers") == 0)
    {
        for (const bool machine : {true, false})
        {
            for (const std::string& name : QcTest::KeyContainers(machine))
            {
                std::printf("%s:%s\n", machine ? "machine" : "user", name.c_str());
            }
        }
        return 0;
    }
    std::fputws(L"usage: QcCertStoreTool add STORE FILE | list STORE | remove STORE NAME | containers\n", stderr);
    return 2;
}
