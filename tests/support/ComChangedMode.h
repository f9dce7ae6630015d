#pragma once

#include <windows.h>
#include <objbase.h>

#include <cstdint>
#include <thread>

namespace QcTest {

// What a wrapper's construction and destruction do to a caller whose thread
// already runs multithreaded COM: `first` is the caller's own initialisation,
// `again` a second one after the wrapper is gone (S_OK when the wrapper
// uninitialised the caller's COM, S_FALSE when it left it alone).
struct ChangedModeOutcome
{
    HRESULT first = E_FAIL;
    HRESULT again = E_FAIL;
    uint32_t lastError = 1; // the wrapper's last error after construction
};

// Builds and destroys a TWrapper (constructed from `args`) on a fresh
// multithreaded thread.
template <typename TWrapper, typename... TArgs>
ChangedModeOutcome WrapperOnMultithreadedThread(TArgs... args)
{
    ChangedModeOutcome outcome;
    std::thread([&] {
        outcome.first = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        {
            TWrapper wrapper(args...);
            outcome.lastError = wrapper.LastError();
        }
        outcome.again = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        ::CoUninitialize();
        if (outcome.again == S_FALSE)
        {
            ::CoUninitialize();
        }
    }).join();
    return outcome;
}

} // namespace QcTest
