// IoIsWdmVersionAvailable answers by the platform generation of the simulated machine.
#include <gtest/gtest.h>

#include <wdmsim/kernel.h>

#include "io_test_driver.h"

namespace {

TEST(WdmVersion, EachPlatformOffersItsVersionAndEveryOlderOne) {
  struct Row {
    wdmsim::Platform platform;
    UCHAR major, minor;
    bool available;
  };
  const Row rows[] = {
      {wdmsim::Platform::WindowsXp, 1, 0x00, true},   {wdmsim::Platform::WindowsXp, 1, 0x10, true},
      {wdmsim::Platform::WindowsXp, 1, 0x20, true},   {wdmsim::Platform::WindowsXp, 1, 0x21, false},
      {wdmsim::Platform::WindowsXp, 1, 0x30, false},  {wdmsim::Platform::WindowsXp, 6, 0x00, false},
      {wdmsim::Platform::WindowsVista, 1, 0x30, true}, {wdmsim::Platform::WindowsVista, 6, 0x00, true},
      {wdmsim::Platform::WindowsVista, 6, 0x01, false}, {wdmsim::Platform::WindowsVista, 7, 0x00, false},
  };
  wdmsim::Kernel kernel;
  for (const Row& row : rows) {
    kernel.SetPlatform(row.platform);
    EXPECT_EQ(IoIsWdmVersionAvailable(row.major, row.minor) != FALSE, row.available)
        << (row.platform == wdmsim::Platform::WindowsXp ? "XP " : "Vista ") << int(row.major) << "." << std::hex
        << int(row.minor);
  }
}

}  // namespace
