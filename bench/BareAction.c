/* The installer-level benchmark's baseline: a DLL that makes only the
   installer calls GetCustomActionVersion cannot avoid (the two-call read of
   "CustomActionData" and one INFO record of the version line's length) and
   nothing else: no C runtime, no static initialisers, no logger. */
#include <windows.h>
#include <msi.h>
#include <msiquery.h>

static wchar_t g_Data[4096];

BOOL WINAPI BareEntry(HINSTANCE hModule, DWORD dwReason, LPVOID lpReserved)
{
    (void)hModule;
    (void)dwReason;
    (void)lpReserved;
    return TRUE;
}

UINT __stdcall GetCustomActionVersion(MSIHANDLE hInstall)
{
    wchar_t empty[1] = {L'\0'};
    DWORD cch = 0;
    if (MsiGetPropertyW(hInstall, L"CustomActionData", empty, &cch) == ERROR_MORE_DATA)
    {
        cch = cch + 1 < 4096 ? cch + 1 : 4096;
        (void)MsiGetPropertyW(hInstall, L"CustomActionData", g_Data, &cch);
    }
    MSIHANDLE hRecord = MsiCreateRecord(2);
    if (hRecord != 0)
    {
        (void)MsiRecordSetStringW(hRecord, 0, L"[1]");
        (void)MsiRecordSetStringW(hRecord, 1,
                                  L"23.11.2026 09:20:46 PID(0x160) TID(0x16C) Workbench (152) Custom Action Dll "
                                  L"'C:\\users\\root\\Temp\\msicbb0.tmp' has version '1.0.0.0'.");
        (void)MsiProcessMessage(hInstall, INSTALLMESSAGE_INFO, hRecord);
        (void)MsiCloseHandle(hRecord);
    }
    return ERROR_SUCCESS;
}
