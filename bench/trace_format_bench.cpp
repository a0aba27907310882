// The trace format engine against the C library's vsnprintf on the same formats, the
// "%N" status lookup, and the cost of a trace call site whose mask bit is clear.
#include <benchmark/benchmark.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include <ntddk.h>

#include "knnametables.h"
#include "kntrace.h"

namespace {

const size_t kBufferSize = 256;  // what KnTrace formats into

void EngineFormat(char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  KnTraceVFormat(buffer, buffer + kBufferSize, format, args);
  va_end(args);
}

void LibcFormat(char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, kBufferSize, format, args);
  va_end(args);
}

typedef void (*FormatFunction)(char* buffer, const char* format, ...);

const char kPlain[] = "usbmi:KnFdo::OnDispatchPnp: IRP_MN_START_DEVICE passed down, waiting for the lower stack\n";
const char kMix[] = "usbmi:ChildPdo::DispatchUrb: fn=%d pipe=%x len=%u name='%s' flags=%X\n";
const char kPointer[] = "usbmi:KnIrpQueue::Insert: IRP=%p\n";
const std::string kLong(400, 'L');

template <FormatFunction Format>
void PlainText(benchmark::State& state) {
  char buffer[kBufferSize];
  for (auto _ : state) {
    Format(buffer, kPlain);
    benchmark::DoNotOptimize(buffer);
  }
}

template <FormatFunction Format>
void IntegersAndString(benchmark::State& state) {
  char buffer[kBufferSize];
  for (auto _ : state) {
    Format(buffer, kMix, 9, 0x82, 4096u, "CDC ACM", 0xC0000001u);
    benchmark::DoNotOptimize(buffer);
  }
}

template <FormatFunction Format>
void Pointer(benchmark::State& state) {
  char buffer[kBufferSize];
  void* irp = (void*)0xFFFF8A0012345678ull;
  for (auto _ : state) {
    Format(buffer, kPointer, irp);
    benchmark::DoNotOptimize(buffer);
  }
}

// A message longer than the buffer: both keep the first 255 characters.
template <FormatFunction Format>
void LongMessage(benchmark::State& state) {
  char buffer[kBufferSize];
  for (auto _ : state) {
    Format(buffer, "usbmi:%s %d\n", kLong.c_str(), 7);
    benchmark::DoNotOptimize(buffer);
  }
}

BENCHMARK_TEMPLATE(PlainText, EngineFormat)->Name("PlainText/KnTraceVFormat");
BENCHMARK_TEMPLATE(PlainText, LibcFormat)->Name("PlainText/vsnprintf");
BENCHMARK_TEMPLATE(IntegersAndString, EngineFormat)->Name("IntegersAndString/KnTraceVFormat");
BENCHMARK_TEMPLATE(IntegersAndString, LibcFormat)->Name("IntegersAndString/vsnprintf");
BENCHMARK_TEMPLATE(Pointer, EngineFormat)->Name("Pointer/KnTraceVFormat");
BENCHMARK_TEMPLATE(Pointer, LibcFormat)->Name("Pointer/vsnprintf");
BENCHMARK_TEMPLATE(LongMessage, EngineFormat)->Name("LongMessage/KnTraceVFormat");
BENCHMARK_TEMPLATE(LongMessage, LibcFormat)->Name("LongMessage/vsnprintf");

// "stat=%N": the binary search over the generated table, for a name near the middle of the
// table and for a value it lacks; beside it the plain hex that vsnprintf could offer.
void StatusName(benchmark::State& state) {
  char buffer[kBufferSize];
  NTSTATUS status = (NTSTATUS)state.range(0);
  for (auto _ : state) {
    EngineFormat(buffer, "usbmi:KnFdo::OnPnpStartDevice: failed, stat=%N\n", status);
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(StatusName)->Name("StatusName/KnTraceVFormat")->Arg(STATUS_CANCELLED)->Arg((long)0xE0001234);

void StatusHex(benchmark::State& state) {
  char buffer[kBufferSize];
  unsigned status = (unsigned)state.range(0);
  for (auto _ : state) {
    LibcFormat(buffer, "usbmi:KnFdo::OnPnpStartDevice: failed, stat=0x%08X\n", status);
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(StatusHex)->Name("StatusName/vsnprintf-hex-only")->Arg(STATUS_CANCELLED);

void StatusLookup(benchmark::State& state) {
  NTSTATUS status = STATUS_CANCELLED;
  for (auto _ : state) {
    benchmark::DoNotOptimize(status);
    benchmark::DoNotOptimize(KnNtStatusName(status));
  }
}
BENCHMARK(StatusLookup)->Name("StatusName/lookup-only");

int gArgumentEvaluations = 0;

int ExpensiveArgument() {
  gArgumentEvaluations++;
  return gArgumentEvaluations;
}

// A disabled trace costs the load and test of the mask; its arguments are not evaluated.
// The clobber makes the mask be read again on every pass, as it is at a real call site.
void CallSiteMaskBitClear(benchmark::State& state) {
  ULONG saved = gKnTraceMask;
  gKnTraceMask = 0x3;
  gArgumentEvaluations = 0;
  for (auto _ : state) {
    KN_TRACE(0x1000, "%P:Device::SSIdleTimerDpc: busy=%d\n", ExpensiveArgument());
    benchmark::ClobberMemory();
  }
  gKnTraceMask = saved;
  if (gArgumentEvaluations != 0) {
    state.SkipWithError("arguments were evaluated with the mask bit clear");
  }
}
BENCHMARK(CallSiteMaskBitClear)->Name("CallSite/mask-bit-clear");

}  // namespace

BENCHMARK_MAIN();
