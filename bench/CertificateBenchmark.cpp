// Prints the time the certificate actions take to create and install a root
// and a server certificate; it measures, it asserts nothing. The PKCS #12
// export, which Wine lacks, is answered by the tests' stand-in.
//   QcCertificateBenchmark.exe [rounds, default 5]
// scripts: bench/certificate-benchmark.sh prints these figures beside
// OpenSSL's for a comparable certificate.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "certificates/CertificateKit.h"
#include "support/ShippedDll.h"

namespace {

using Clock = std::chrono::steady_clock;

// Milliseconds one call of the export takes with ROOTCERTNAME=`root`.
double TimeAction(const QcRunner::CActionLibrary& library, const char* exportName, const std::wstring& root)
{
    QcRunner::CActionHost host;
    host.SetCustomActionData(L";ROOTCERTNAME=" + root);
    const auto start = Clock::now();
    const UINT result = host.Call(library.Find(exportName));
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    if (result != 0)
    {
        std::fprintf(stderr, "%s failed with %u\n", exportName, result);
    }
    return ms;
}

void Print(const char* what, std::vector<double> ms)
{
    std::sort(ms.begin(), ms.end());
    std::printf("%-44s median %8.1f ms  min %8.1f ms  max %8.1f ms  (%zu rounds)\n", what, ms[ms.size() / 2],
                ms.front(), ms.back(), ms.size());
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const int rounds = argc > 1 ? std::max(1, _wtoi(argv[1])) : 5;
    QcRunner::CActionLibrary library(QcTest::ShippedDllPath());
    QcTest::CPfxSeam seam(library.Module());
    if (!library.IsLoaded() || !seam.IsInstalled())
    {
        std::fprintf(stderr, "cannot load the DLL or redirect its PKCS #12 imports\n");
        return 1;
    }
    const std::wstring root = L"Quillcast Benchmark Root";
    std::vector<double> roots;
    std::vector<double> servers;
    for (int round = 0; round < rounds; ++round)
    {
        roots.push_back(TimeAction(library, "CreateAndInstallRootCertificate", root));
        servers.push_back(TimeAction(library, "CreateAndInstallSignedServerCertificate", root));
        // One root at a time, so that every server look-up walks the same store.
        for (const wchar_t* store : {L"Root", L"MY"})
        {
            QcTest::RemoveCertificates(QcTest::OpenMachineStore(store).Get(), root.c_str());
        }
    }
    Print("CreateAndInstallRootCertificate (2048 bits)", roots);
    Print("CreateAndInstallSignedServerCertificate", servers);
    return 0;
}
