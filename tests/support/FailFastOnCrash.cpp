// Link into a test program to turn an unhandled exception (an access violation,
// a corrupted heap) into an immediate failed exit with a message. Left alone,
// Wine starts its debugger and the test waits until CTest's time-out.
#include <windows.h>

#include <cstdio>

namespace {

LONG WINAPI ReportAndExit(EXCEPTION_POINTERS* pException)
{
    const EXCEPTION_RECORD& record = *pException->ExceptionRecord;
    std::fprintf(stderr, "FAILED: unhandled exception 0x%08lX at %p\n", record.ExceptionCode, record.ExceptionAddress);
    std::fflush(stderr);
    ::TerminateProcess(::GetCurrentProcess(), 3);
    return EXCEPTION_EXECUTE_HANDLER;
}

[[maybe_unused]] const LPTOP_LEVEL_EXCEPTION_FILTER g_pPreviousFilter = ::SetUnhandledExceptionFilter(ReportAndExit);

} // namespace
