// Memory descriptor lists over always-resident host memory.
#include <gtest/gtest.h>

#include <wdmsim/kernel.h>

#include "io_test_driver.h"

namespace {

TEST(Mdl, DescribesTheBufferPageByPageAndChainsSecondaryBuffers) {
  wdmsim::Kernel kernel;
  alignas(PAGE_SIZE) static UCHAR buffer[3 * PAGE_SIZE];
  PVOID start = buffer + PAGE_SIZE - 16;  // 16 bytes before a page boundary
  PMDL mdl = IoAllocateMdl(start, PAGE_SIZE, FALSE, FALSE, nullptr);
  ASSERT_NE(mdl, nullptr);
  EXPECT_EQ(MmGetMdlByteCount(mdl), static_cast<ULONG>(PAGE_SIZE));
  EXPECT_EQ(MmGetMdlByteOffset(mdl), static_cast<ULONG>(PAGE_SIZE - 16));
  EXPECT_EQ(mdl->StartVa, buffer);
  EXPECT_EQ(MmGetMdlVirtualAddress(mdl), start);
  EXPECT_EQ(mdl->Size, static_cast<CSHORT>(sizeof(MDL) + 2 * sizeof(PFN_NUMBER)));  // spans two pages
  EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), start);
  EXPECT_TRUE(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);

  PIRP irp = IoAllocateIrp(1, FALSE);
  PMDL primary = IoAllocateMdl(buffer, 8, FALSE, FALSE, irp);
  PMDL secondary = IoAllocateMdl(buffer + 8, 8, TRUE, FALSE, irp);
  EXPECT_EQ(irp->MdlAddress, primary);
  EXPECT_EQ(primary->Next, secondary);
  MmBuildMdlForNonPagedPool(secondary);
  EXPECT_TRUE(secondary->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL);
  EXPECT_EQ(MmGetSystemAddressForMdlSafe(secondary, NormalPagePriority), buffer + 8);
  IoFreeMdl(secondary);
  IoFreeMdl(primary);
  IoFreeIrp(irp);
  IoFreeMdl(mdl);

  wdmsim_test::ExpectViolations expected;
  IoFreeMdl(mdl);
  EXPECT_EQ(expected.Count("DRIVER_VERIFIER_IOMANAGER_VIOLATION"), 1);
}

}  // namespace
