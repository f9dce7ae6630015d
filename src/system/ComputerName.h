#pragma once

#include "host/types/WideString.h"

namespace Quillcast::System {

// The machine's host name as Winsock reports it, converted from the ANSI code
// page; empty (after a logged error) when Winsock cannot start or the name
// does not fit into 260 bytes. Winsock is cleaned up on every path where it
// started. Never throws.
Types::CWideBuffer QueryComputerName() noexcept;

} // namespace Quillcast::System
