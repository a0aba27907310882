// How raw values of the device's hardware key become the parent's settings: the byte of
// "SelectiveSuspendOperation" per platform generation, the bounds of the mode and the idle
// period, the clamped configuration index and the flags, each on both sides of its limits.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <wdmsim/kernel.h>

#include "devicesettings.h"

namespace {

TEST(SettingsNormalisation, PlatformGenerationIsTheNewestOffered) {
  {
    wdmsim::KernelOptions options;
    options.platform = wdmsim::Platform::WindowsXp;
    wdmsim::Kernel kernel(options);
    EXPECT_EQ(ULONG(OS_WinXP), QueryOSVersion());
  }
  {
    wdmsim::Kernel kernel;
    EXPECT_EQ(ULONG(OS_Vista), QueryOSVersion());
  }
}

TEST(SettingsNormalisation, SelectiveSuspendOperationTakesTheByteOfThePlatform) {
  struct Case {
    ULONG value;
    ULONG osVersion;
    ULONG expected;
  } cases[] = {
      {0x00030201, OS_Win2000, 1}, {0x00030201, OS_WinXP, 2}, {0x00030201, OS_Vista, 3},
      {0x00030201, OS_unknown, 1}, {0x00030201, 4, 1},
      {0x00000004, OS_Win2000, 1},  // 4 and more: the default
      {0x00000003, OS_Win2000, 3},  // last value kept
      {0x00000300, OS_Win2000, 1},  // 0 in the platform's byte: the default
      {0x00FF0000, OS_Vista, 1},    {0x02000000, OS_Vista, 1},  // the top byte belongs to no platform
      {0x00000200, OS_WinXP, 2},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.expected, SelSusOperationFromSetting(c.value, c.osVersion))
        << std::hex << c.value << " on generation " << c.osVersion;
  }
}

TEST(SettingsNormalisation, ModeIdlePeriodAndFlagsRespectTheirBounds) {
  struct ModeCase {
    ULONG value;
    LONG expected;
  } modes[] = {{0, 1}, {1, 1}, {2, 2}, {3, 3}, {4, 1}, {0x7FFFFFFF, 1}, {0xFFFFFFFF, -1}, {0x80000000, LONG(0x80000000)}};
  for (const ModeCase& c : modes) {
    EXPECT_EQ(c.expected, SelSusModeFromSetting(c.value)) << std::hex << c.value;
  }

  struct IdleCase {
    ULONG value;
    ULONG expectedPeriod;
    ULONG expectedOperation;  // the operation was 3 before
  } idles[] = {{0, 50, 1}, {1, 50, 3}, {20, 50, 3}, {49, 50, 3}, {50, 50, 3}, {51, 51, 3}, {500, 500, 3},
               {0xFFFFFFFF, 0xFFFFFFFF, 3}};
  for (const IdleCase& c : idles) {
    ULONG operation = 3;
    EXPECT_EQ(c.expectedPeriod, IdlePeriodFromSetting(c.value, &operation)) << c.value;
    EXPECT_EQ(c.expectedOperation, operation) << c.value;
  }

  EXPECT_EQ(0, FlagFromSetting(0));
  EXPECT_EQ(1, FlagFromSetting(1));
  EXPECT_EQ(1, FlagFromSetting(0x100));  // not only the low byte counts
  EXPECT_EQ(1, FlagFromSetting(0x80000000));
}

TEST(SettingsNormalisation, ConfigurationIndexIsTheLowByteClampedToTheLastConfiguration) {
  struct Case {
    ULONG value;
    UCHAR configurations;
    UCHAR expected;
  } cases[] = {
      {0, 2, 0},     {1, 2, 1},     {2, 2, 1},  {5, 2, 1},  // clamped to the last index
      {0x101, 2, 1}, {0x100, 2, 0},                         // low 8 bits only
      {0, 1, 0},     {3, 1, 0},     {2, 3, 2},  {3, 3, 2},
      {7, 0, 7},     {0x1FF, 0, 0xFF},  // no configuration reported: kept as read
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.expected, ConfigurationIndexFromSetting(c.value, c.configurations))
        << std::hex << c.value << " of " << int(c.configurations);
  }
}

}  // namespace
