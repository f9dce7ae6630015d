#pragma once

#include <windows.h>

#include <cstdint>

#include "host/types/Buffer.h"

namespace Quillcast::System {

// Reads a file's version resource at construction and renders its file version
// as "%u.%u.%u.%u". Never throws; failures are logged (except a null or empty
// path, error 87) and leave the text empty.
class CFileVersion
{
public:
    explicit CFileVersion(const wchar_t* path);
    CFileVersion(const CFileVersion&) = delete;
    CFileVersion& operator=(const CFileVersion&) = delete;

    uint32_t Error() const noexcept { return m_dwError; }
    // Points into the block this object owns; null when not obtained.
    const VS_FIXEDFILEINFO* FixedInfo() const noexcept { return m_pFixedInfo; }
    // The file version, or "" when it was not obtained.
    const wchar_t* Text() const noexcept;

private:
    uint32_t m_dwError = 0;
    VS_FIXEDFILEINFO* m_pFixedInfo = nullptr;
    Types::CBuffer<unsigned char> m_Block;
    Types::CBuffer<wchar_t> m_Text;
};

} // namespace Quillcast::System
