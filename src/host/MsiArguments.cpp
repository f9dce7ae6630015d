#include "host/MsiArguments.h"

#include <cwchar>
#include <new>

#include "host/MsiProperty.h"
#include "host/types/WideString.h"
#include "logging/Log.h"

namespace Quillcast::Host {

namespace {

constexpr Logging::CLogSource kLogSource{L"MsiArguments", 0};
constexpr wchar_t kCustomActionData[] = L"CustomActionData";

using System::Types::CWideBuffer;

wchar_t FoldAscii(wchar_t ch) noexcept
{
    return (ch >= L'A' && ch <= L'Z') ? static_cast<wchar_t>(ch - L'A' + L'a') : ch;
}

// Copies [begin, end) into `out` and trims it when it holds anything.
void TakeTrimmed(CWideBuffer& out, const wchar_t* begin, const wchar_t* end)
{
    if (!System::Types::Assign(out, begin, static_cast<uint32_t>(end - begin)))
    {
        throw std::bad_alloc();
    }
    if (end != begin)
    {
        System::Types::Trim(out, L' ');
    }
}

} // namespace

bool EqualsIgnoringAsciiCase(const wchar_t* left, const wchar_t* right) noexcept
{
    for (;; ++left, ++right)
    {
        if (FoldAscii(*left) != FoldAscii(*right))
        {
            return false;
        }
        if (*left == L'\0')
        {
            return true;
        }
    }
}

CMsiArguments::CMsiArguments(MSIHANDLE hInstall)
{
    if (hInstall == 0)
    {
        QC_LOG_ERROR(kLogSource) << L"Invalid MSI handle";
        return;
    }
    CWideBuffer data;
    const PropertyReadResult read = ReadProperty(hInstall, kCustomActionData, data);
    switch (read.failedStep)
    {
    case PropertyReadStep::None:
        break;
    case PropertyReadStep::Allocate:
        QC_LOG_ERROR(kLogSource) << L"Allocating " << read.cch << L" elements failed";
        return;
    case PropertyReadStep::SizeQuery:
    case PropertyReadStep::Read:
        QC_LOG_ERROR(kLogSource) << L"MsiGetProperty failed with error " << read.result;
        return;
    }
    Parse(data.Data());
}

void CMsiArguments::Parse(const wchar_t* data)
{
    if (data == nullptr || *data == L'\0')
    {
        return;
    }
    const wchar_t separator = data[0];
    const wchar_t* const end = data + ::wcslen(data);
    const wchar_t* position = data + 1;
    while (position < end)
    {
        const wchar_t* equals = ::wmemchr(position, L'=', static_cast<size_t>(end - position));
        if (equals == nullptr)
        {
            break;
        }
        const wchar_t* valueBegin = equals + 1;
        const wchar_t* valueEnd = ::wmemchr(valueBegin, separator, static_cast<size_t>(end - valueBegin));
        if (valueEnd == nullptr)
        {
            valueEnd = end;
        }

        MsiArgument pair;
        TakeTrimmed(pair.m_Name, position, equals);
        TakeTrimmed(pair.m_Value, valueBegin, valueEnd);
        m_Pairs.push_back(pair);

        position = (valueEnd == end) ? end : valueEnd + 1;
    }
}

const wchar_t* CMsiArguments::GetArgument(const wchar_t* name) const noexcept
{
    // Pairs written with an empty name ("=value") are kept but never found.
    if (name == nullptr || *name == L'\0')
    {
        return nullptr;
    }
    for (const MsiArgument& pair : m_Pairs)
    {
        if (EqualsIgnoringAsciiCase(System::Types::Text(pair.m_Name), name))
        {
            return System::Types::Text(pair.m_Value);
        }
    }
    return nullptr;
}

} // namespace Quillcast::Host
