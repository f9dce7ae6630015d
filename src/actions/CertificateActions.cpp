// The certificate actions: a self-signed root in the machine's "Root" store, a
// server certificate for this computer signed by it in the machine's "MY"
// store, and their removal.
#include <windows.h>

#include "actions/Workers.h"
#include "certificates/CertStore.h"
#include "certificates/Certificates.h"
#include "host/ArgumentNames.h"
#include "logging/Log.h"
#include "system/ComputerName.h"

namespace Quillcast::Actions {

namespace {

constexpr Logging::CLogSource kLogSource{L"Certificates", 0};
constexpr WORD kExtraValidityYears = 50; // on top of the one year the defaults give
constexpr DWORD kLocalMachine = 1;

struct CertificateProfile
{
    const wchar_t* pszSubjectName;
    DWORD dwKeyType;
    bool bSelfSigned;
    const wchar_t* pszIssuerName; // issuer-signed only
    const wchar_t* pszStoreName;  // where the certificate is installed
};

UINT CreateAndInstall(const CertificateProfile& profile) noexcept
{
    Certificates::CreateCertificateParams params{};
    params.dwSize = Certificates::kCreateCertificateParamsSize;
    Certificates::InitializeCreateCertificateParams(&params);
    params.pszSubjectName = profile.pszSubjectName;
    params.dwKeyType = profile.dwKeyType;
    params.dwHashAlgorithm = 1;
    params.stValidTo.wYear = static_cast<WORD>(params.stValidTo.wYear + kExtraValidityYears);
    params.dwPurposes = 0;
    params.bSelfSigned = profile.bSelfSigned ? 1 : 0;
    params.nProviderIndex = -1;
    if (!profile.bSelfSigned)
    {
        params.pszIssuerName = profile.pszIssuerName;
        params.pszIssuerStore = L"Root";
        params.dwIssuerStoreLocation = kLocalMachine;
    }
    const int32_t created = Certificates::CreateCertificate(&params);
    if (created != 0)
    {
        QC_LOG_ERROR(kLogSource) << L"CreateCertificate failed with error " << created;
        return ERROR_INSTALL_FAILURE;
    }
    // FreeCertificateMemory (and its log entry) belongs to the success path; a
    // failed import still wipes and releases the blob through this owner.
    System::Types::CWipedProcessHeapPtr<BYTE> pfx(params.pbPfx);

    Certificates::ImportCertificateParams import{};
    import.dwSize = Certificates::kImportCertificateParamsSize;
    import.pbPfx = params.pbPfx;
    import.cbPfx = params.cbPfx;
    import.dwStoreLocation = kLocalMachine; // the private key goes into the machine key set
    import.pszStoreName = profile.pszStoreName;
    import.bExportable = 1;
    const int32_t imported = Certificates::ImportCertificate(&import);
    if (imported != 0)
    {
        QC_LOG_ERROR(kLogSource) << L"ImportCertificate failed with error " << imported;
        return ERROR_INSTALL_FAILURE;
    }
    Certificates::FreeCertificateMemory(pfx.Detach());
    return ERROR_SUCCESS;
}

enum class Removal
{
    BySubject,
    ByIssuer,
};

UINT Uninstall(const wchar_t* pszStoreName, Removal removal, const wchar_t* pszName) noexcept
{
    Certificates::CCertStore store; // closed in every case when it goes; a failing close is logged
    if (!store.Open(pszStoreName))
    {
        return ERROR_INSTALL_FAILURE;
    }
    const bool bRemoved =
        removal == Removal::BySubject ? store.DeleteBySubject(pszName) : store.DeleteByIssuer(pszName);
    return bRemoved ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

const wchar_t* RootName(const Host::CWorkbench* pWorkbench) noexcept
{
    return pWorkbench->m_Arguments.GetArgument(Host::Argument::kRootCertName);
}

} // namespace

UINT CreateAndInstallRootCertificateWorker(Host::CWorkbench* pWorkbench)
{
    return CreateAndInstall({RootName(pWorkbench), AT_SIGNATURE, true, nullptr, L"Root"});
}

UINT CreateAndInstallSignedServerCertificateWorker(Host::CWorkbench* pWorkbench)
{
    const System::Types::CWideBuffer computerName = System::QueryComputerName();
    return CreateAndInstall({System::Types::Text(computerName), AT_KEYEXCHANGE, false, RootName(pWorkbench), L"MY"});
}

UINT UninstallRootCertificateWorker(Host::CWorkbench* pWorkbench)
{
    return Uninstall(L"Root", Removal::BySubject, RootName(pWorkbench));
}

UINT UninstallSignedCertificateWorker(Host::CWorkbench* pWorkbench)
{
    return Uninstall(L"MY", Removal::ByIssuer, RootName(pWorkbench));
}

} // namespace Quillcast::Actions
