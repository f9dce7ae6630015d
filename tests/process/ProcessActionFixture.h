#pragma once

// The shipped DLL's process and shell actions through real installer sessions,
// against real processes, windows, shell and registry of the run's Wine prefix.
// Three imports of the loaded DLL are redirected to recorders that pass each
// call on (ActionHooks): they record what the action chose (time-outs, opened
// process ids) and order the test program's steps against the action's, so
// that no case depends on timing. TerminateProcess is redirected to a stand-in
// that keeps the documented Windows rule Wine lacks: a process that has already
// ended cannot be terminated (ERROR_ACCESS_DENIED); Wine answers TRUE.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "ActionHost.h"
#include "host/types/Handles.h"

namespace QcTest {

using Lines = std::vector<std::wstring>;
using Waits = std::vector<DWORD>;

// What the redirected imports saw and how they act. Reset before every case.
struct ActionHooks
{
    // Every time-out the DLL passed to WaitForSingleObject, in order.
    static inline Waits waits;
    // Every process id the DLL passed to OpenProcess, in order.
    static inline std::vector<DWORD> openedProcessIds;
    // Waited on (up to 10 s) before the DLL's first check of a process (a 0 ms
    // wait) is passed on: the program's "close handled" event, or its process.
    static inline HANDLE hBeforeFirstCheck = nullptr;
    // Waits with a finite, non-zero limit are passed on with 0 ms, so that a
    // chosen minute costs nothing; false passes them on unchanged.
    static inline bool bShortenWaits = true;
    // OpenProcess fails with ERROR_ACCESS_DENIED.
    static inline bool bFailOpenProcess = false;
    // The DLL's exit-code reads wait (up to 10 s) for the process to end first.
    static inline bool bEndBeforeExitCodeRead = false;
    // The access mask of every RegOpenKeyExW call of the DLL.
    static inline std::vector<REGSAM> keyAccess;
    // Set whenever the DLL starts an unlimited wait: releases a holding program.
    static inline HANDLE hRelease = nullptr;

    static void Reset();
};

class ProcessActionTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;
    // Ends every process of this case's program copies, whatever the outcome.
    void TearDown() override;

    // A folder of this case's own (emptied), and a copy of the test program
    // in it under `fileName`; the copy's name is unique to the case.
    std::wstring Folder() const { return m_Folder; }
    std::wstring CopyProgram(const std::wstring& fileName);
    // Starts the program with `arguments` and waits until it is ready (its window
    // exists); the handle is the test's, ended in TearDown.
    HANDLE Launch(const std::wstring& path, const std::wstring& arguments);
    // The exit code once the process has ended (up to 10 s), else STILL_ACTIVE.
    static DWORD ExitCodeAfterEnd(HANDLE hProcess);
    // The record lines the copy at `path` wrote (path + ".record").
    static Lines Records(const std::wstring& path);

    // Calls the export in a fresh session with "CustomActionData" `data` (when
    // not null) and the given properties; returns its result and the bodies of
    // every line the frame did not write.
    UINT Run(const char* exportName, const wchar_t* data,
             const std::vector<std::pair<std::wstring, std::wstring>>& properties, Lines& lines);

    // `text` with "{dir}" replaced by Folder() and "{pid<N>}" by the id of the
    // N-th launched program.
    std::wstring Expand(std::wstring text) const;
    Lines Expand(Lines lines) const;

    static QcRunner::CActionLibrary* s_pLibrary;
    std::vector<Quillcast::System::Types::CKernelHandle> m_Launched;
    std::vector<DWORD> m_LaunchedIds;

private:
    std::wstring m_Folder;
    std::vector<std::wstring> m_CopyNames;
};

} // namespace QcTest
