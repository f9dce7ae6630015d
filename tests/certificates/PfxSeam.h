#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <vector>

#include "support/ImportPatch.h"

namespace QcTest {

// Wine's PFXExportCertStoreEx is a stub, and its PFXImportCertStore gives
// imported keys an unusable provider property. For the seam's lifetime one
// loaded module's imports of both are answered by a stand-in that moves the
// certificate and its private key through a plain blob: "QCPFX1", then the
// encoded certificate, the key kind and the PRIVATEKEYBLOB, each
// length-prefixed. It keeps Windows' rules where the engine meets them: the
// size query with a null buffer; a too small buffer fails with ERROR_MORE_DATA;
// EXPORT_PRIVATE_KEYS reads the key named by the certificate's key-provider
// property, which must be exportable (NTE_BAD_KEY_STATE otherwise); the import
// puts the key into a new container (machine key set with CRYPT_MACHINE_KEYSET,
// exportable only with CRYPT_EXPORTABLE) and names it in the key-provider
// property; a blob that is not one fails with CRYPT_E_BAD_ENCODE. Key blobs
// are wiped after use.
//
// Wine's key containers differ from Windows' in one point the export meets:
// a generated key reaches the container only when the context that made it is
// released, so a second context on the same container sees no key while the
// engine still holds its own. The seam therefore also watches the module's
// CryptAcquireContextW (unchanged, only noted) and reads the key through the
// context that created the container, as Windows would read it from the
// container itself.
class CPfxSeam
{
public:
    explicit CPfxSeam(HMODULE hModule);

    bool IsInstalled() const { return m_Acquire.IsApplied() && m_Export.IsApplied() && m_Import.IsApplied(); }
    // The flags of each import since the last Clear(), in order.
    static std::vector<DWORD> ImportFlags();
    static void Clear();

    // The encoded certificate inside a blob the stand-in made; empty if it is none.
    static std::vector<BYTE> CertificateOf(const BYTE* pbPfx, DWORD cbPfx);

private:
    CImportPatch m_Acquire;
    CImportPatch m_Export;
    CImportPatch m_Import;
};

} // namespace QcTest
