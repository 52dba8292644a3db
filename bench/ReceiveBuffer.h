// The receive buffer that a socket of this machine gets unless it asks for another,
// net.core.rmem_default.
#pragma once

#include <cstdint>
#include <functional>

std::int64_t ReceiveBuffer();

// Changes it for the whole machine; false when this process may not.
[[nodiscard]] bool SetReceiveBuffer(std::int64_t nBytes);

// Runs act, which may change the buffer and start processes, in a process of its own, and returns
// its exit status. However it ends, by Ctrl-C too: what it left running and the temporary files are
// gone afterwards, and the buffer is as it was. 1, with a line on standard error, when that cannot
// be.
int RunTidily(const std::function<int()>& act);
