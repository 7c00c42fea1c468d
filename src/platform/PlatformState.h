// Process-wide state of the platform layer that the device and the engines
// share: the running I/O engine and the count of outstanding requests.
#pragma once

namespace Pt {

class IoEngine;

// The running engine, or null before the first PlatformInit with
// asyncFileIo and after the last PlatformUninit.
IoEngine* CurrentIoEngine() noexcept;

// Every queued request is counted from queueing until its callback returned,
// so that the last PlatformUninit can wait for all of them.
void RequestStarted() noexcept;
void RequestEnded() noexcept;

}  // namespace Pt
