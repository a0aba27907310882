// Trace output: the mask at the call site, the debugger output, the time-stamped copy in
// the log buffer, the elapsed-time conversion, hex dumps and the reporting assertion.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <ntddk.h>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "kntrace.h"
#include "kntracelogbuffer.h"

namespace {

class TraceOutputTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    mSavedMask = gKnTraceMask;
    memcpy(mSavedPrefix, gKnTracePrefix, sizeof(mSavedPrefix));
    KnTraceSetPrefix("usbmi");
    gKnTraceMask = 3;
    wdmsim::TakeDebugOutput();
  }
  void TearDown() override {
    KnTraceDeleteLogBuffer();
    gKnTraceMask = mSavedMask;
    memcpy(gKnTracePrefix, mSavedPrefix, sizeof(mSavedPrefix));
  }

  // The ring of the global log buffer from the data start to the end offset (no wrap in
  // these tests).
  static std::string LoggedText() {
    const UCHAR* block = gKnTraceLogBuffer->GetMemory();
    const KnTraceLogControlBlock* head = (const KnTraceLogControlBlock*)block;
    return std::string((const char*)block + head->DataStart, head->EndOffset - head->DataStart);
  }

  wdmsim::Kernel mKernel;
  ULONG mSavedMask = 0;
  char mSavedPrefix[kKnTracePrefixSize];
};

TEST_F(TraceOutputTest, TextReachesTheDebuggerAsDataNotAsFormat) {
  KnTrace("%P:rate %d%%\n", 50);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "usbmi:rate 50%\n");
  // The formatted text holds a conversion again; DbgPrint must print it as it is.
  KnTrace("%s", "100% %d %s\n");
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "100% %d %s\n");
  KnTraceOutput("raw %N\n");
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "raw %N\n");
}

TEST_F(TraceOutputTest, CallSiteTestsItsBitAndSkipsTheArgumentsWhenClear) {
  int evaluated = 0;
  gKnTraceMask = 0x2;
  KN_TRACE(0x1, "%P:error %d\n", ++evaluated);
  KN_TRACE(0x4, "%P:flow %d\n", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "");

  KN_TRACE(0x2, "%P:warning %d\n", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "usbmi:warning 1\n");

  gKnTraceMask = 0x80000000;
  KN_TRACE(0x80000000, "%P:dump\n");
  KN_TRACE(0x1, "%P:error\n");
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "usbmi:dump\n");

  const UCHAR bytes[2] = {0xAB, 0xCD};
  KN_TRACE_DUMP(0x20, bytes, sizeof(bytes));
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "");
  KN_TRACE_DUMP(0x80000000, bytes, sizeof(bytes));
  EXPECT_NE(wdmsim::TakeDebugOutput().find("0000: AB CD"), std::string::npos);
}

TEST_F(TraceOutputTest, AssertionReportsOnlyWithTheErrorBit) {
  gKnTraceMask = 0x2;
  KnAssert(FALSE, "mLowerDevice!=NULL", "libkn/knfdo.cpp", 42);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "");

  gKnTraceMask = 0x1;
  KnAssert(TRUE, "mLowerDevice!=NULL", "libkn/knfdo.cpp", 42);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "");
  KnAssert(FALSE, "mLowerDevice!=NULL", "libkn/knfdo.cpp", 42);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "\nusbmi:ASSERTION FAILED: (mLowerDevice!=NULL)\n  libkn/knfdo.cpp(42)\n");

  // The macro reports the condition as written, with this file and line.
  int two = 2;
  int line = __LINE__ + 1;
  KN_ASSERT(two==3);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), std::string("\nusbmi:ASSERTION FAILED: (two==3)\n  ") + __FILE__ + "(" +
                                           std::to_string(line) + ")\n");
  KN_ASSERT(two==2);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "");
}

TEST_F(TraceOutputTest, IrqlAssertions) {
  struct Case {
    KIRQL irql;
    bool passiveFires, lteqDispatchFires, dispatchFires;
  };
  const Case cases[] = {
      {PASSIVE_LEVEL, false, false, true},
      {APC_LEVEL, true, false, true},
      {DISPATCH_LEVEL, true, false, false},
      {DISPATCH_LEVEL + 1, true, true, true},
  };
  gKnTraceMask = 0x1;
  for (const Case& c : cases) {
    KIRQL old = PASSIVE_LEVEL;
    if (c.irql != PASSIVE_LEVEL) KeRaiseIrql(c.irql, &old);
    KN_ASSERT_IRQL_EQ_PASSIVE();
    std::string passive = wdmsim::TakeDebugOutput();
    KN_ASSERT_IRQL_LTEQ_DISPATCH();
    std::string lteqDispatch = wdmsim::TakeDebugOutput();
    KN_ASSERT_IRQL_EQ_DISPATCH();
    std::string dispatch = wdmsim::TakeDebugOutput();
    if (c.irql != PASSIVE_LEVEL) KeLowerIrql(old);

    EXPECT_EQ(passive.find("ASSERTION FAILED: (IRQL_EQ_PASSIVE())") != std::string::npos, c.passiveFires)
        << "IRQL " << (int)c.irql << ": " << passive;
    EXPECT_EQ(lteqDispatch.find("ASSERTION FAILED: (IRQL_LTEQ_DISPATCH())") != std::string::npos,
              c.lteqDispatchFires)
        << "IRQL " << (int)c.irql << ": " << lteqDispatch;
    EXPECT_EQ(dispatch.find("ASSERTION FAILED: (IRQL_EQ_DISPATCH())") != std::string::npos, c.dispatchFires)
        << "IRQL " << (int)c.irql << ": " << dispatch;
  }
}

TEST_F(TraceOutputTest, HexDumpLines) {
  UCHAR bytes[20];
  for (int i = 0; i < 16; i++) bytes[i] = (UCHAR)('A' + i);
  bytes[16] = 0x00;
  bytes[17] = 0x7F;  // 127 still prints as itself
  bytes[18] = 0x80;
  bytes[19] = 0x20;

  KnTraceDump(bytes, sizeof(bytes));
  std::string expected =
      "0000: 41 42 43 44  45 46 47 48  49 4A 4B 4C  4D 4E 4F 50   ABCDEFGHIJKLMNOP\n"
      "0010: 00 7F 80 20" + std::string(59 - 17, ' ') + ".\x7F. \n";
  EXPECT_EQ(wdmsim::TakeDebugOutput(), expected);
  // The text column starts at position 59 in the full line and in the partial one.
  ASSERT_EQ(expected.substr(59, 17), "ABCDEFGHIJKLMNOP\n");
  ASSERT_EQ(expected.substr(76 + 59), ".\x7F. \n");

  // Exactly one line, one byte past it, and nothing.
  KnTraceDump(bytes, 16);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), expected.substr(0, 76));
  KnTraceDump(bytes, 17);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), expected.substr(0, 76) + "0010: 00" + std::string(59 - 8, ' ') + ".\n");
  KnTraceDump(bytes, 0);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "<<NULL>>\n");
  KnTraceDump(nullptr, 0);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "<<NULL>>\n");

  // Offsets use 16 bits: 0x10000 shows as 0000.
  std::string block(0x10000 + 0x20, '\x01');
  KnTraceDump(block.data(), block.size());
  std::string out = wdmsim::TakeDebugOutput();
  for (const char* line : {"\nFFF0: 01 01", "\n0000: 01 01", "\n0010: 01 01"}) {
    EXPECT_NE(out.find(line), std::string::npos) << line;
  }
}

TEST_F(TraceOutputTest, LogBufferGetsTheTimeStampedTextBelowDispatchOnly) {
  ASSERT_TRUE(KnTraceCreateLogBuffer(4));
  mKernel.Advance(1234);
  ULONG ms = (ULONG)(mKernel.SystemTime() / 10000);
  KnTrace("%P:first\n");
  char stamp[16];
  snprintf(stamp, sizeof(stamp), "%8u  ", ms);  // low 32 bits, at least 8 columns wide
  std::string expected = stamp + std::string("usbmi:first\n");
  EXPECT_EQ(LoggedText(), expected + "################\n");
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "usbmi:first\n");  // the debugger gets no stamp

  // At DISPATCH_LEVEL still logged; above it the debugger only.
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  KnTrace("at dispatch\n");
  KeLowerIrql(old);
  KeRaiseIrql(DISPATCH_LEVEL + 1, &old);
  KnTrace("above dispatch\n");
  KeLowerIrql(old);
  EXPECT_EQ(LoggedText(), expected + stamp + "at dispatch\n################\n");
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "at dispatch\nabove dispatch\n");
}

TEST_F(TraceOutputTest, ElapsedTimeFollowsThePerformanceCounter) {
  auto reference = [](ULONG units) {
    LARGE_INTEGER frequency;
    LARGE_INTEGER counter = KeQueryPerformanceCounter(&frequency);
    return (ULONG)(unsigned __int128)((__int128)counter.QuadPart * units / frequency.QuadPart);
  };
  mKernel.Advance(2500);
  ULONG microseconds = KnTraceElapsedTime(1000000);
  EXPECT_EQ(microseconds, reference(1000000));
  EXPECT_EQ(KnTraceElapsedTime(1000), reference(1000));
  EXPECT_EQ(KnTraceElapsedTime(0), 0u);
  // Large units overflow a 64-bit product of the counter; the result keeps the low 32 bits.
  mKernel.Advance(3600 * 1000);
  EXPECT_EQ(KnTraceElapsedTime(0xFFFFFFFF), reference(0xFFFFFFFF));

  // "%T" prints microseconds by default, and the precision picks the unit.
  char expected[32];
  snprintf(expected, sizeof(expected), "%u", reference(1000000));
  KnTrace("%T\n");
  EXPECT_EQ(wdmsim::TakeDebugOutput(), std::string(expected) + "\n");
  snprintf(expected, sizeof(expected), "[%12u]", reference(1000));
  KnTrace("[%12.1000T]\n");
  EXPECT_EQ(wdmsim::TakeDebugOutput(), std::string(expected) + "\n");
  ULONG before = KnTraceElapsedTime(1000);
  mKernel.Advance(1500);
  EXPECT_EQ(KnTraceElapsedTime(1000) - before, 1500u);
}

}  // namespace
