// DbgPrint: the kernel's printf conversions, the 512-byte limit, RtlAssert's report and
// lines from many threads kept whole.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "kernel_test_helpers.h"

namespace {

template <typename... Args>
std::string Printed(const char* format, Args... args) {
  wdmsim::TakeDebugOutput();
  DbgPrint(format, args...);
  return wdmsim::TakeDebugOutput();
}

}  // namespace

TEST(DebugOutput, ConversionsFollowTheKernelsPrintf) {
  wdmsim::Kernel kernel;
  WCHAR wide[] = L"W\u00e9de";
  UNICODE_STRING unicode = {3 * sizeof(WCHAR), sizeof wide, wide};  // counts 3 of its 4 characters
  char ansiText[] = "ansi-text";
  ANSI_STRING ansi = {4, sizeof ansiText, ansiText};
  LONG negative = -5;
  ULONG big = 0xFFFFFFFFu;

  EXPECT_EQ(Printed("%s|%S|%ws|%ls", "narrow", wide, wide, wide), "narrow|W\xC3\xA9" "de|W\xC3\xA9" "de|W\xC3\xA9" "de");
  EXPECT_EQ(Printed("[%wZ][%Z]", &unicode, &ansi), "[W\xC3\xA9" "d][ansi]");
  EXPECT_EQ(Printed("%d %u %ld %lu %x %X", negative, big, negative, big, 0xBEEFu, 0xBEEFu),
            "-5 4294967295 -5 4294967295 beef BEEF");
  EXPECT_EQ(Printed("%I64x %lld %I64d", 0x123456789ABCDEF0ULL, -1234567890123LL, 42LL),
            "123456789abcdef0 -1234567890123 42");
  EXPECT_EQ(Printed("%p", reinterpret_cast<void*>(0xFFFFF80012345678ULL)), "FFFFF80012345678");
  EXPECT_EQ(Printed("%c%C%wc", 'a', L'\u00e9', L'z'), "a\xC3\xA9z");
  EXPECT_EQ(Printed("[%5d][%-5d][%05d][%.3s][%*s]", 42, 42, 42, "abcdef", 4, "x"),
            "[   42][42   ][00042][abc][   x]");
  EXPECT_EQ(Printed("%s %wZ %S", static_cast<const char*>(nullptr), static_cast<UNICODE_STRING*>(nullptr),
                    static_cast<const WCHAR*>(nullptr)),
            "(null) (null) (null)");
  EXPECT_EQ(Printed("100%% %hd %hhu", 0x12345, 0x1FF), "100% 9029 255");
  // DbgPrintEx prints whatever the component and level.
  wdmsim::TakeDebugOutput();
  DbgPrintEx(DPFLTR_IHVBUS_ID, DPFLTR_INFO_LEVEL, "level %d\n", 3);
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "level 3\n");
}

TEST(DebugOutput, RtlAssertReportsAndCountsButDoesNotStop) {
  wdmsim::Kernel kernel;
  EXPECT_EQ(wdmsim::TakeRtlAssertCount(), 0);
  RtlAssert((PVOID) "x != 0", (PVOID) "libkn/knthing.cpp", 31, nullptr);
  RtlAssert((PVOID) "y", (PVOID) "f.cpp", 7, (PSTR) "why: ");
  EXPECT_EQ(wdmsim::TakeDebugOutput(),
            "\n*** Assertion failed: x != 0\n***   Source File: libkn/knthing.cpp, line 31\n\n"
            "\n*** Assertion failed: why: y\n***   Source File: f.cpp, line 7\n\n");
  EXPECT_EQ(wdmsim::TakeRtlAssertCount(), 2);
  EXPECT_EQ(wdmsim::TakeRtlAssertCount(), 0);
  DbgBreakPoint();
  EXPECT_NE(wdmsim::TakeDebugOutput().find("DbgBreakPoint"), std::string::npos);
}

TEST(DebugOutput, AMessageIsCutAt512BytesAndANewKernelStartsEmpty) {
  {
    wdmsim::Kernel kernel;
    std::string exact(512, 'e');
    std::string longer(513, 'l');
    EXPECT_EQ(Printed("%s", exact.c_str()).size(), 512u);
    EXPECT_EQ(Printed("%s", longer.c_str()), std::string(512, 'l'));
    DbgPrint("left over\n");
  }
  wdmsim::Kernel kernel;
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "");
}

namespace {

constexpr int kLinesPerThread = 300;

void NTAPI PrintLines(PVOID context) {
  int id = static_cast<int>(reinterpret_cast<intptr_t>(context));
  for (int i = 0; i < kLinesPerThread; ++i) DbgPrint("thread %d line %03d %s\n", id, i, "-----------------------");
}

}  // namespace

TEST(DebugOutput, LinesFromManyThreadsDoNotInterleave) {
  wdmsim::Kernel kernel;
  std::vector<PVOID> threads;
  for (intptr_t id = 0; id < 4; ++id) {
    threads.push_back(kernel_test::StartSystemThread(PrintLines, reinterpret_cast<PVOID>(id)));
  }
  for (PVOID t : threads) kernel_test::JoinSystemThread(t);
  std::string output = wdmsim::TakeDebugOutput();
  int next[4] = {0, 0, 0, 0};
  size_t start = 0;
  int lines = 0;
  while (start < output.size()) {
    size_t end = output.find('\n', start);
    ASSERT_NE(end, std::string::npos);
    std::string line = output.substr(start, end - start);
    int id = -1, number = -1;
    ASSERT_EQ(sscanf(line.c_str(), "thread %d line %d", &id, &number), 2) << line;
    ASSERT_TRUE(id >= 0 && id < 4) << line;
    EXPECT_EQ(number, next[id]++) << "lines of one thread out of order";
    EXPECT_EQ(line.size(), std::string("thread 0 line 000 -----------------------").size()) << line;
    start = end + 1;
    ++lines;
  }
  EXPECT_EQ(lines, 4 * kLinesPerThread);
}
