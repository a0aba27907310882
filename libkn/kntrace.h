// The framework's diagnostics: trace calls gated by the trace mask, our own format
// engine, hex dumps and the assertion that only reports.
//
// Tracing. Every message tests exactly one bit of gKnTraceMask at its call site:
//
//   KN_TRACE(0x1, "%P:KnFdo::OnPnpStartDevice: StartDevice failed, stat=%N\n", status);
//
// When the bit is clear the call costs one test of the mask and the arguments are not
// evaluated. The format is read by KnTraceVFormat, not by a C library: besides the usual
// conversions it knows "%P" (the service name), "%N" (an NTSTATUS with its name), "%B",
// "%W", "%D", "%Q" (fixed-width upper-case hex of 8, 16, 32 and 64 bits), "%S" (UTF-16
// text), "%U" (a UNICODE_STRING) and "%T" (time since system start). Messages begin with
// "%P:" and the class and method, and end with "\n".
//
// Bits in use: 0x1 errors (and assertions), 0x2 warnings and milestones, 0x4 flow, 0x8 USB
// configuration and power detail, 0x20 parent PnP, 0x100 child request detail,
// 0x1000 selective suspend, 0x2000 busy counter and idle detail, 0x10000 one line per
// transfer, 0x80000000 raw dumps.
//
// Assertions report (with bit 0x1) and execution goes on; they never break in:
//
//   KN_ASSERT(mLowerDevice!=NULL);      // reports "(mLowerDevice!=NULL)" with file and line
//   KN_ASSERT_IRQL_LTEQ_DISPATCH();
#pragma once

#include <ntddk.h>

// The trace mask: 3 (errors and warnings) until the driver entry reads "TraceMask".
// Written only during the driver entry, read without locking afterwards.
extern ULONG gKnTraceMask;

// What "%P" prints: the service name, NUL-terminated; empty until the driver entry sets it.
const ULONG kKnTracePrefixSize = 32;
extern char gKnTracePrefix[kKnTracePrefixSize];

// Copies at most 31 characters of Prefix and fills the rest of gKnTracePrefix with NULs.
void KnTraceSetPrefix(const char* Prefix);

// Formats into a 256-byte buffer on the stack (a longer message keeps its first 255
// characters) and hands the text to KnTraceOutput. Does not look at the mask: call it
// through KN_TRACE. Any IRQL at which DbgPrint may be called.
void __cdecl KnTrace(const char* Format, ...);

// Appends Text, time-stamped, to the trace log buffer when there is one and the IRQL is at
// most DISPATCH_LEVEL, then prints it to the debugger (as data, never as a format).
void KnTraceOutput(const char* Text);

// The format engine: writes into [Buffer, End) and always terminates the text. When the
// text does not fit, the last slot is overwritten by each further character and finally by
// the NUL, so at most End - Buffer - 1 characters are kept. Returns the position of the NUL.
char* KnTraceVFormat(char* Buffer, char* End, const char* Format, va_list Args);

// Flags of KnFormatNumber.
enum KnFormatFlags {
  KnFormatZeroPad = 0x01,
  KnFormatSigned = 0x02,    // Value is a signed 64-bit number
  KnFormatPlus = 0x04,      // "+" before a non-negative signed number
  KnFormatSpace = 0x08,     // " " before a non-negative signed number (when not KnFormatPlus)
  KnFormatLeft = 0x10,      // left-justify within the width (cancels KnFormatZeroPad)
  KnFormatAlternate = 0x20, // "0x"/"0X" for base 16, "0" for base 8
  KnFormatUpper = 0x40,     // upper-case digits and "0X"
};

// Writes Value in Base (2 to 36; any other base writes nothing) at Out with the same
// buffer discipline as KnTraceVFormat, but does not terminate the text. Width and
// Precision of -1 mean unset. Writes nothing when Out + 1 is not below End. Returns the
// new output position.
char* KnFormatNumber(char* Out, char* End, ULONGLONG Value, int Base, int Width, int Precision, ULONG Flags);

// Time since system start in UnitsPerSecond units (1000000: microseconds), from the
// performance counter; the low 32 bits of the result. 0 when the counter has no frequency.
ULONG KnTraceElapsedTime(ULONG UnitsPerSecond);

// Hex dump of Length bytes at Address through KnTraceOutput, 16 bytes a line with offset,
// hex and text columns. Not gated by the mask: callers test their bit (KN_TRACE_DUMP).
void KnTraceDump(const void* Address, ULONG Length);

// The framework's assertion: when bit 0x1 is set and Condition is false, traces
// "ASSERTION FAILED" with Text, File and Line. Never stops execution.
void KnAssert(BOOLEAN Condition, const char* Text, const char* File, ULONG Line);

#define KN_TRACE(Bit, ...)                \
  do {                                    \
    if ((gKnTraceMask & (Bit)) != 0) {    \
      KnTrace(__VA_ARGS__);               \
    }                                     \
  } while (0)

#define KN_TRACE_DUMP(Bit, Address, Length)   \
  do {                                        \
    if ((gKnTraceMask & (Bit)) != 0) {        \
      KnTraceDump((Address), (Length));       \
    }                                         \
  } while (0)

#define KN_ASSERT(Condition) KnAssert((BOOLEAN)!!(Condition), #Condition, __FILE__, __LINE__)

#define KN_ASSERT_IRQL_EQ_PASSIVE() \
  KnAssert((BOOLEAN)(KeGetCurrentIrql() == PASSIVE_LEVEL), "IRQL_EQ_PASSIVE()", __FILE__, __LINE__)
#define KN_ASSERT_IRQL_LTEQ_DISPATCH() \
  KnAssert((BOOLEAN)(KeGetCurrentIrql() <= DISPATCH_LEVEL), "IRQL_LTEQ_DISPATCH()", __FILE__, __LINE__)
#define KN_ASSERT_IRQL_EQ_DISPATCH() \
  KnAssert((BOOLEAN)(KeGetCurrentIrql() == DISPATCH_LEVEL), "IRQL_EQ_DISPATCH()", __FILE__, __LINE__)
