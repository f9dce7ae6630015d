#pragma once

#include <windows.h>

#include <cstring>

namespace QcTest {

// Redirects one imported function of one loaded module: the entry for
// `dllName`!`functionName` in the module's import address table is replaced,
// so that only that module's calls of that function go elsewhere; the module
// file and every other import stay as they are. The destructor puts the
// original address back.
class CImportPatch
{
public:
    CImportPatch(HMODULE hModule, const char* dllName, const char* functionName, const void* replacement)
            : m_ppSlot(hModule != nullptr ? FindSlot(reinterpret_cast<BYTE*>(hModule), dllName, functionName) : nullptr)
    {
        if (m_ppSlot != nullptr)
        {
            m_pOriginal = *m_ppSlot;
            Write(const_cast<void*>(replacement));
        }
    }
    CImportPatch(const CImportPatch&) = delete;
    CImportPatch& operator=(const CImportPatch&) = delete;
    ~CImportPatch()
    {
        if (m_ppSlot != nullptr)
        {
            Write(m_pOriginal);
        }
    }

    bool IsApplied() const { return m_ppSlot != nullptr; }
    // The address the module called before the patch.
    template <typename TFunction>
    TFunction Original() const
    {
        return reinterpret_cast<TFunction>(m_pOriginal);
    }

private:
    static void** FindSlot(BYTE* base, const char* dllName, const char* functionName)
    {
        const auto* nt =
            reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
        const DWORD imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
        for (auto* entry = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports); imports != 0 && entry->Name != 0;
             ++entry)
        {
            if (::_stricmp(reinterpret_cast<const char*>(base + entry->Name), dllName) != 0 ||
                entry->OriginalFirstThunk == 0)
            {
                continue;
            }
            // The name table says which function each address-table slot holds.
            const auto* name = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + entry->OriginalFirstThunk);
            auto* address = reinterpret_cast<IMAGE_THUNK_DATA*>(base + entry->FirstThunk);
            for (; name->u1.AddressOfData != 0; ++name, ++address)
            {
                const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData);
                if (!IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal) &&
                    std::strcmp(reinterpret_cast<const char*>(byName->Name), functionName) == 0)
                {
                    return reinterpret_cast<void**>(&address->u1.Function);
                }
            }
        }
        return nullptr;
    }

    void Write(void* value)
    {
        DWORD oldProtection = 0;
        if (::VirtualProtect(m_ppSlot, sizeof(void*), PAGE_READWRITE, &oldProtection))
        {
            *m_ppSlot = value;
            ::VirtualProtect(m_ppSlot, sizeof(void*), oldProtection, &oldProtection);
        }
    }

    void** m_ppSlot;
    void* m_pOriginal = nullptr;
};

} // namespace QcTest
