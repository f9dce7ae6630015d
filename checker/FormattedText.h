#pragma once

#include <functional>
#include <string>
#include <vector>

namespace QcChecker {

// What the package says about a property before install time.
enum class PropertyState
{
    Known,       // a row of the Property table: its value
    InstallTime, // set while the package runs: by the installer, a type 51 action, a folder, a search
    Public,      // a public property nothing in the package sets: empty unless the command line sets it
};

struct PropertyLookup
{
    PropertyState state;
    std::wstring value; // for Known
};

// Which install the expansion imagines for the public properties nothing in
// the package sets.
enum class Scenario
{
    Set,   // every one of them has a value
    Unset, // none has
};

// A value that only install time knows stands in the expansion as a reference
// mark: kReferenceBegin, the property's name, kReferenceEnd.
inline constexpr wchar_t kReferenceBegin = L'\xE000';
inline constexpr wchar_t kReferenceEnd = L'\xE001';

// Expands a formatted column the way the installer will: [NAME] references
// resolved from the inside out ([A[B]] names the property A followed by the
// value of B), [\x] escapes, and {...} groups that vanish when a property they
// name is unset (a group that names none stays, braces and all).
std::wstring ExpandFormatted(const std::wstring& text, Scenario scenario,
                             const std::function<PropertyLookup(const std::wstring&)>& lookup);

// The expansion without its reference marks, and the names the marks hold.
std::wstring WithoutReferences(const std::wstring& expanded);
std::vector<std::wstring> ReferencedNames(const std::wstring& expanded);

// The properties a formatted column names in plain [NAME] references (the
// innermost name of a nested one).
std::vector<std::wstring> PropertiesNamedIn(const std::wstring& text);

} // namespace QcChecker
