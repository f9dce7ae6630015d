#include "logging/DefaultLogger.h"

#include <cstdio>
#include <cwchar>

#include "host/types/WideString.h"
#include "logging/LogPrefixDate.h"
#include "logging/LogPrefixTIdPId.h"

namespace Quillcast::Logging {

namespace {

void WriteText(CLogStreamMem& line, const wchar_t* text) noexcept
{
    line.Write(text, static_cast<uint32_t>(::wcslen(text)));
}

} // namespace

CDefaultLogger::CDefaultLogger(System::IO::COutputStream<wchar_t>* pOutput) : m_pOutput(pOutput)
{
    AttachClone(m_Prefixes, CLogPrefixDate());
    AttachClone(m_Prefixes, CLogPrefixTIdPId());
}

CDefaultLogger::~CDefaultLogger() = default;

void CDefaultLogger::AddPrefix(const CLogable& prefix)
{
    AttachClone(m_Prefixes, prefix);
}

void CDefaultLogger::AddPostfix(const CLogable& postfix)
{
    AttachClone(m_Postfixes, postfix);
}

void CDefaultLogger::AttachClone(System::Types::CPointerList<CLogable>& pieces, const CLogable& piece)
{
    const System::Synchronization::CSingleLock lock(m_Lock);
    // A clone that failed (null) is left out: the lines go on without that piece.
    (void)pieces.Append(piece.Clone());
}

void CDefaultLogger::Begin(uint32_t level)
{
    // Released by End, which every Begin is paired with.
    (void)m_Lock.Lock(INFINITE);
    m_dwLevel = level;
    if (!IsEnabled())
    {
        return;
    }
    m_Line.Clear();
    m_Prefixes.ForEach([this](const CLogable& prefix) { prefix.Write(m_Line); });
    if (level == LOG_LEVEL_ERROR)
    {
        WriteText(m_Line, L"[ERROR] ");
    }
    else if (level == LOG_LEVEL_WARNING)
    {
        WriteText(m_Line, L"[WARNING] ");
    }
}

void CDefaultLogger::End(bool bNoPostfix)
{
    if (IsEnabled())
    {
        if (!bNoPostfix)
        {
            m_Postfixes.ForEach([this](const CLogable& postfix) { postfix.Write(m_Line); });
        }
        if (m_Line.Terminate() && m_pOutput != nullptr)
        {
            m_pOutput->Write(m_Line.Data(), m_Line.Length() - 1);
        }
    }
    m_Lock.Unlock();
}

template <size_t Capacity, typename... Args>
void CDefaultLogger::AppendFormatted(const wchar_t* format, Args... args)
{
    if (!IsEnabled())
    {
        return;
    }
    wchar_t text[Capacity] = {};
    const int length = ::_snwprintf(text, Capacity - 1, format, args...);
    if (length >= 1)
    {
        m_Line.Write(text, static_cast<uint32_t>(length));
    }
}

void CDefaultLogger::AppendHex(uint32_t value)
{
    AppendFormatted<10>(L"%X", static_cast<unsigned>(value));
}

void CDefaultLogger::Append(double value)
{
    AppendFormatted<255>(L"%f", value);
}

void CDefaultLogger::Append(float value)
{
    AppendFormatted<255>(L"%f", static_cast<double>(value));
}

void CDefaultLogger::Append(uint64_t value)
{
    AppendFormatted<255>(L"%u", static_cast<unsigned>(value & 0xFFFFFFFFu));
}

void CDefaultLogger::Append(uint32_t value)
{
    AppendFormatted<255>(L"%u", static_cast<unsigned>(value));
}

void CDefaultLogger::Append(int32_t value)
{
    AppendFormatted<255>(L"%i", static_cast<int>(value));
}

void CDefaultLogger::Append(unsigned long value)
{
    AppendFormatted<255>(L"%u", static_cast<unsigned>(value));
}

void CDefaultLogger::Append(long value)
{
    AppendFormatted<255>(L"%i", static_cast<int>(value));
}

void CDefaultLogger::Append(uint16_t value)
{
    AppendFormatted<255>(L"%u", static_cast<unsigned>(value));
}

void CDefaultLogger::Append(int16_t value)
{
    AppendFormatted<255>(L"%i", static_cast<int>(value));
}

void CDefaultLogger::Append(bool value)
{
    if (IsEnabled())
    {
        WriteText(m_Line, value ? L"True" : L"False");
    }
}

void CDefaultLogger::Append(uint8_t value)
{
    AppendFormatted<4>(L"%u", static_cast<unsigned>(value));
}

void CDefaultLogger::Append(const wchar_t* text)
{
    if (IsEnabled() && text != nullptr)
    {
        WriteText(m_Line, text);
    }
}

void CDefaultLogger::Append(const char* text)
{
    if (!IsEnabled() || text == nullptr)
    {
        return;
    }
    System::Types::CWideBuffer converted;
    if (System::Types::AssignNarrow(converted, text, CP_ACP))
    {
        WriteText(m_Line, System::Types::Text(converted));
    }
}

void CDefaultLogger::Append(const CLogable& piece)
{
    if (IsEnabled())
    {
        piece.Write(m_Line);
    }
}

} // namespace Quillcast::Logging
