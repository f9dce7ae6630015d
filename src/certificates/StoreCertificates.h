#pragma once

#include <windows.h>
#include <wincrypt.h>

#include "host/types/Handles.h"

namespace Quillcast::Certificates {

// One walk over the certificates of an open store, in enumeration order:
//   CStoreCertificates certificates(hStore);
//   for (PCCERT_CONTEXT pCertificate : certificates) ...
// The walk owns the context it stands on: CertEnumCertificatesInStore frees it
// when the walk leads on, and the walk frees it when the loop is left early.
// Detach() hands that context to the caller instead (to keep, or to give to
// CertDeleteCertificateFromStore, which frees it); the walk then leads on from
// the store's first certificate, because only a context it still holds can
// lead the enumeration on (leading on from a duplicate of a deleted context
// can keep Wine's enumeration on the same certificate). The store is borrowed
// and must stay open for the walk.
class CStoreCertificates
{
public:
    explicit CStoreCertificates(HCERTSTORE hStore) noexcept : m_hStore(hStore) {}
    CStoreCertificates(const CStoreCertificates&) = delete;
    CStoreCertificates& operator=(const CStoreCertificates&) = delete;

    // The next certificate (the first one at the start and after Detach); null at the end.
    PCCERT_CONTEXT Next() noexcept
    {
        m_Current.Reset(::CertEnumCertificatesInStore(m_hStore, m_Current.Detach()));
        return m_Current.Get();
    }
    // The certificate the walk stands on, now the caller's to free.
    [[nodiscard]] PCCERT_CONTEXT Detach() noexcept { return m_Current.Detach(); }

    class CIterator
    {
    public:
        CIterator(CStoreCertificates* pWalk, PCCERT_CONTEXT pCertificate) noexcept
                : m_pWalk(pWalk), m_pCertificate(pCertificate)
        {
        }
        PCCERT_CONTEXT operator*() const noexcept { return m_pCertificate; }
        CIterator& operator++() noexcept
        {
            m_pCertificate = m_pWalk->Next();
            return *this;
        }
        bool operator!=(const CIterator& other) const noexcept { return m_pCertificate != other.m_pCertificate; }

    private:
        CStoreCertificates* m_pWalk;
        PCCERT_CONTEXT m_pCertificate;
    };
    CIterator begin() noexcept { return CIterator(this, Next()); }
    CIterator end() noexcept { return CIterator(this, nullptr); }

private:
    HCERTSTORE m_hStore;
    System::Types::CCertContext m_Current;
};

} // namespace Quillcast::Certificates
