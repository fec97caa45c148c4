// Where the library waits on the network. Wine's WinINet sets no send or receive time-out of its
// own and has none at all for a TLS handshake, so a collector or download server that accepts and
// never answers would hold the installing thread for minutes. Network work therefore runs on
// threads of the library's own, and the installing thread waits for it a bounded time only.
#pragma once

#include <windows.h>
#include <wininet.h>

#include <cstddef>
#include <functional>

namespace kite {

// Each connect, send and receive of one request gives up after this long.
constexpr DWORD kNetworkTimeoutMs = 2000;
// How long the installing thread waits for a download, and at the end for its queued events.
constexpr DWORD kDownloadBoundMs = 5000;
constexpr DWORD kFlushBoundMs = 5000;

// The time-outs on a WinINet handle. An internet (root) handle takes only the connect time-out
// under Wine; connection and request handles take all three.
void SetNetworkTimeouts(HINTERNET handle, bool rootHandle);

// Runs the work on a thread of its own and waits for it at most the given time: true when it
// finished. A late work goes on alone, so it must own everything it touches (capture by value or
// shared_ptr). The thread holds a reference on this module until it ends, so a host that frees
// the library meanwhile does not unload the code under it.
bool RunBounded(std::function<void()> work, DWORD milliseconds);

// Appends the work to the one queue that a single worker thread runs in order (the events of an
// installation reach the collector as they were reported). Never blocks on the network.
void EnqueueNetworkWork(std::function<void()> work);

// Waits at most the given time for the queue to empty and the worker to go idle, then drops what
// is still queued; returns how many were dropped. A send already under way is left to finish.
std::size_t FlushNetworkWork(DWORD milliseconds);

}  // namespace kite
