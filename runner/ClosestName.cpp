#include "ClosestName.h"

#include <algorithm>

namespace QcRunner {

namespace {

wchar_t FoldAscii(wchar_t c)
{
    return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

bool EqualsFolded(const std::wstring& left, const std::wstring& right)
{
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin(),
                                                     [](wchar_t l, wchar_t r) { return FoldAscii(l) == FoldAscii(r); });
}

// Levenshtein distance (insert, delete, replace) between the folded texts.
size_t EditDistance(const std::wstring& left, const std::wstring& right)
{
    std::vector<size_t> row(right.size() + 1);
    for (size_t j = 0; j < row.size(); ++j)
    {
        row[j] = j;
    }
    for (size_t i = 1; i <= left.size(); ++i)
    {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= right.size(); ++j)
        {
            const size_t above = row[j];
            const size_t replace = diagonal + (FoldAscii(left[i - 1]) == FoldAscii(right[j - 1]) ? 0 : 1);
            row[j] = std::min({above + 1, row[j - 1] + 1, replace});
            diagonal = above;
        }
    }
    return row.back();
}

} // namespace

std::wstring ClosestName(const std::wstring& name, const std::vector<std::wstring>& candidates)
{
    for (const std::wstring& candidate : candidates)
    {
        if (EqualsFolded(name, candidate))
        {
            return candidate;
        }
    }
    const std::wstring* pBest = nullptr;
    size_t best = name.size() / 3 + 1;
    for (const std::wstring& candidate : candidates)
    {
        const size_t distance = EditDistance(name, candidate);
        if (distance < best)
        {
            best = distance;
            pBest = &candidate;
        }
    }
    return pBest != nullptr ? *pBest : std::wstring();
}

} // namespace QcRunner
