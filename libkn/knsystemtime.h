// The framework's clock: the system time in milliseconds, and the conversion of
// millisecond time-outs into the kernel's relative due times.
#pragma once
#include <ntddk.h>

// Milliseconds since 1601 (the system time in 100 ns units, divided with sign).
// Any IRQL.
LONGLONG KnGetSystemTimeMs();

// A relative kernel due time (negative, 100 ns units) for a time-out in milliseconds;
// computed in 64 bits so that no 32-bit value overflows.
inline LONGLONG KnRelativeDueTime(ULONG milliseconds) { return (LONGLONG)milliseconds * -10000; }
