#pragma once

// Runs one export of the shipped DLL on a thread of its own (so that every
// call meets a thread without COM, or in the apartment the case chooses) with a
// fresh installer session, and returns what it left behind.
#include <windows.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ActionHost.h"
#include "support/LogCapture.h"
#include "support/ShippedDll.h"

namespace QcTest {

using Lines = std::vector<std::wstring>;
using Properties = std::vector<std::pair<std::wstring, std::wstring>>;

struct ActionOutcome
{
    UINT result = 0xFFFFFFFF;
    Lines lines;               // bodies of the lines the frame did not write
    Lines values;              // the values of the names asked for ("" when unset)
    HRESULT comAfter = E_FAIL; // CoInitializeEx(apartment) on the thread after the call
    Lines messages;            // the user messages with the installer's answers
};

inline QcRunner::CActionLibrary& ShippedLibrary()
{
    static QcRunner::CActionLibrary library(ShippedDllPath());
    return library;
}

// In a fresh session, on the calling thread; gone again when this returns.
inline void CallInNewSession(QcRunner::CustomActionFunction action, const Properties& properties, const Lines& show,
                             int answer, ActionOutcome& outcome)
{
    QcRunner::CActionHost host;
    for (const auto& [name, value] : properties)
    {
        host.SetProperty(name, value);
    }
    if (action == nullptr || !host.IsOpen())
    {
        outcome.lines.push_back(L"(no action or no session) " + host.Error());
        return;
    }
    host.SetFallbackAnswer(answer);
    outcome.result = host.Call(action);
    outcome.messages = host.Messages();
    for (const std::wstring& body : Bodies(host.LogLines()))
    {
        if (body.find(L"Workbench (#) ") == std::wstring::npos)
        {
            outcome.lines.push_back(body);
        }
    }
    for (const std::wstring& name : show)
    {
        outcome.values.push_back(host.GetProperty(name));
    }
}

// With `apartmentBefore` other than -1 the thread enters that apartment first;
// the installer answers every user message with `answer`.
inline ActionOutcome RunAction(const char* exportName, const Properties& properties, const Lines& show,
                               int apartmentBefore = -1, int answer = IDOK)
{
    const QcRunner::CustomActionFunction action = ShippedLibrary().Find(exportName);
    const auto apartment = static_cast<DWORD>(apartmentBefore != -1 ? apartmentBefore : COINIT_MULTITHREADED);
    ActionOutcome outcome;
    std::thread([&] {
        if (apartmentBefore != -1)
        {
            (void)CoInitializeEx(nullptr, apartment);
        }
        CallInNewSession(action, properties, show, answer, outcome);
        // S_OK when the action left COM as it found it on a fresh thread.
        outcome.comAfter = CoInitializeEx(nullptr, apartment);
        CoUninitialize();
        if (apartmentBefore != -1)
        {
            CoUninitialize();
        }
    }).join();
    return outcome;
}

} // namespace QcTest
