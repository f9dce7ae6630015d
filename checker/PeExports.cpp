#include "PeExports.h"

#include <windows.h>

#include <cstring>

namespace QcChecker {

namespace {

// Copies a T from `offset`, if the image holds it whole.
template <typename T>
bool ReadAt(const std::vector<unsigned char>& image, size_t offset, T& value)
{
    if (offset > image.size() || image.size() - offset < sizeof(T))
    {
        return false;
    }
    std::memcpy(&value, image.data() + offset, sizeof(T));
    return true;
}

} // namespace

std::optional<std::set<std::string>> ReadDllExports(const std::vector<unsigned char>& image)
{
    IMAGE_DOS_HEADER dos{};
    DWORD signature = 0;
    IMAGE_FILE_HEADER file{};
    WORD magic = 0;
    if (!ReadAt(image, 0, dos) || dos.e_magic != IMAGE_DOS_SIGNATURE || dos.e_lfanew < 0 ||
        !ReadAt(image, static_cast<size_t>(dos.e_lfanew), signature) || signature != IMAGE_NT_SIGNATURE ||
        !ReadAt(image, static_cast<size_t>(dos.e_lfanew) + sizeof(DWORD), file) ||
        (file.Characteristics & IMAGE_FILE_DLL) == 0)
    {
        return std::nullopt;
    }
    const size_t optional = static_cast<size_t>(dos.e_lfanew) + sizeof(DWORD) + sizeof(IMAGE_FILE_HEADER);
    if (!ReadAt(image, optional, magic) ||
        (magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC && magic != IMAGE_NT_OPTIONAL_HDR32_MAGIC))
    {
        return std::nullopt;
    }
    // The export directory is the first data directory; its place differs between PE32+ and PE32.
    const bool b64 = magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC;
    DWORD directoryCount = 0;
    IMAGE_DATA_DIRECTORY exports{};
    const size_t directories = optional + (b64 ? offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory)
                                               : offsetof(IMAGE_OPTIONAL_HEADER32, DataDirectory));
    if (!ReadAt(image, directories - sizeof(DWORD), directoryCount))
    {
        return std::nullopt;
    }
    std::set<std::string> names;
    if (directoryCount == 0 || !ReadAt(image, directories, exports) || exports.VirtualAddress == 0)
    {
        return names;
    }
    // An address of the loaded image, as an offset into the file.
    const size_t sections = optional + file.SizeOfOptionalHeader;
    const auto fileOffset = [&](DWORD rva) -> size_t {
        IMAGE_SECTION_HEADER section{};
        for (WORD i = 0; i < file.NumberOfSections && ReadAt(image, sections + i * sizeof(section), section); ++i)
        {
            if (rva >= section.VirtualAddress && rva - section.VirtualAddress < section.SizeOfRawData)
            {
                return section.PointerToRawData + (rva - section.VirtualAddress);
            }
        }
        return image.size(); // outside every section: reads fail
    };
    IMAGE_EXPORT_DIRECTORY directory{};
    if (!ReadAt(image, fileOffset(exports.VirtualAddress), directory))
    {
        return std::nullopt;
    }
    const size_t nameTable = fileOffset(directory.AddressOfNames);
    for (DWORD i = 0; i < directory.NumberOfNames; ++i)
    {
        DWORD nameRva = 0;
        if (!ReadAt(image, nameTable + i * sizeof(DWORD), nameRva))
        {
            return std::nullopt;
        }
        const size_t begin = fileOffset(nameRva);
        size_t end = begin;
        while (end < image.size() && image[end] != 0)
        {
            ++end;
        }
        if (end == image.size())
        {
            return std::nullopt;
        }
        names.emplace(reinterpret_cast<const char*>(image.data() + begin), end - begin);
    }
    return names;
}

} // namespace QcChecker
