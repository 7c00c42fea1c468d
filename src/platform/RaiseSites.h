// Where the platform layer raises its exceptions. Each raise site is a named
// constant so that a report names the operation that failed.
#pragma once

#include "pt/Exception.h"

namespace Pt {

inline constexpr ExWhere kRaiseThreadCreate{"pt/Thread", 1};
inline constexpr ExWhere kRaisePlatformNotStarted{"pt/Platform", 1};
inline constexpr ExWhere kRaiseIoUringSetup{"pt/UringEngine", 1};
inline constexpr ExWhere kRaiseIoThreadCreate{"pt/ThreadPoolEngine", 1};
inline constexpr ExWhere kRaiseDeviceOpen{"pt/PtIoDeviceFile", 1};
inline constexpr ExWhere kRaiseDeviceLength{"pt/PtIoDeviceFile", 2};
inline constexpr ExWhere kRaiseDeviceFlush{"pt/PtIoDeviceFile", 3};
inline constexpr ExWhere kRaiseDeviceRequest{"pt/PtIoDeviceFile", 4};
inline constexpr ExWhere kRaiseIoTransfer{"pt/IoEngine", 1};
inline constexpr ExWhere kRaiseIoCallback{"pt/IoEngine", 2};
inline constexpr ExWhere kRaiseFaultInjected{"pt/IoFaultInjection", 1};

}  // namespace Pt
