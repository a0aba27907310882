// The parent's division of its configuration set into functions: which interfaces go
// together, how many descriptor bytes each function gets, and the child set built from it,
// compared byte for byte with sets written out by hand.
#include <gtest/gtest.h>

#include <ntddk.h>
#include <usb.h>

#include <cstring>
#include <string>
#include <vector>

#include <wdmsim/debugout.h>
#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>
#include <wdmsim/usbdevice.h>

#include "device.h"
#include "interfaceentry.h"
#include "kndriverobject.h"
#include "knmemory.h"
#include "kntrace.h"
#include "libknnewdelete.h"

namespace {

using Bytes = std::vector<uint8_t>;

const ULONG kChildSetTag = KN_POOLTAG("USBM");
const ULONG kEntryTag = KN_POOLTAG("LbKn");

Bytes Join(const std::vector<Bytes>& parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

// Descriptors written out field by field, independently of the driver's structures.
Bytes ConfigHeader(uint16_t totalLength, uint8_t interfaces) {
  return {0x09, 0x02, uint8_t(totalLength), uint8_t(totalLength >> 8), interfaces, 0x01, 0x04, 0xA0, 0x32};
}
Bytes Iad(uint8_t first, uint8_t count, uint8_t cls) { return {0x08, 0x0B, first, count, cls, 0x00, 0x00, 0x00}; }
Bytes If(uint8_t number, uint8_t alternate, uint8_t endpoints, uint8_t cls, uint8_t sub, uint8_t prot) {
  return {0x09, 0x04, number, alternate, endpoints, cls, sub, prot, 0x00};
}
Bytes Ep(uint8_t address, uint8_t attributes) { return {0x07, 0x05, address, attributes, 0x40, 0x00, 0x01}; }
Bytes ClassSpecific(uint8_t subtype) { return {0x05, 0x24, subtype, 0x10, 0x01}; }

// The parent's set: header (with its total length and interface count filled in) and parts.
Bytes ParentSet(uint8_t interfaces, const std::vector<Bytes>& parts) {
  Bytes body = Join(parts);
  Bytes set = ConfigHeader(uint16_t(9 + body.size()), interfaces);
  set.insert(set.end(), body.begin(), body.end());
  return set;
}

// What a child must receive: the parent's header with its two fields replaced, then the parts.
Bytes ChildSet(uint8_t interfaces, const std::vector<Bytes>& parts) { return ParentSet(interfaces, parts); }

struct Function {
  UCHAR firstNumber;
  ULONG count;
  ULONG size;
  Bytes childSet;
};

class EnumeratingDevice : public Device {
 public:
  // Hands the device a copy of the set, as the start does after reading it.
  void HoldSet(const Bytes& set) {
    mConfigDesc.Release();
    void* copy = KnAllocateMemory(NonPagedPool, set.size(), KN_POOLTAG("USBC"), TRUE);
    ASSERT_NE(nullptr, copy);
    memcpy(copy, set.data(), set.size());
    mConfigDesc.Attach(static_cast<PUSB_CONFIGURATION_DESCRIPTOR>(copy));
  }
  const UCHAR* SetStart() { return static_cast<const UCHAR*>(static_cast<const void*>(mConfigDesc.GetDescriptor())); }
  size_t InterfaceEntries() const { return Count(&mInterfaceList); }
  size_t IadEntries() const { return Count(&mIadList); }

  // Everything the start would make children of, in order.
  std::vector<Function> Enumerate() {
    CreateLists();
    SSGetSelSuspendInterface();
    std::vector<Function> functions;
    for (;;) {
      ULONG count = 0xDEAD;
      ULONG size = 0xBEEF;
      PUSB_INTERFACE_DESCRIPTOR first = GetInterfaces(&count, &size);
      if (first == nullptr) {
        break;
      }
      PUSB_CONFIGURATION_DESCRIPTOR child = BuildChildConfigurationDescriptor(
          static_cast<const USB_CONFIGURATION_DESCRIPTOR*>(mConfigDesc.GetDescriptor()), mConfigDesc.GetLength(), first,
          count, size);
      EXPECT_NE(nullptr, child);
      Function function{first->bInterfaceNumber, count, size, {}};
      if (child != nullptr) {
        const uint8_t* bytes = reinterpret_cast<const uint8_t*>(child);
        function.childSet.assign(bytes, bytes + 9 + size);
        KnFreeMemory(child);
      }
      functions.push_back(function);
    }
    return functions;
  }

 private:
  static size_t Count(const LIST_ENTRY* head) {
    size_t n = 0;
    for (const LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
      n++;
    }
    return n;
  }
};

class InterfaceEnumerationTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    gKnTraceMask = 0x5;
    KnTraceSetPrefix("");
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    mDriver = wdmsim::LoadDriver(u"usbmi", DriverEntry, &status);
    ASSERT_NE(nullptr, mDriver);
    mDevice = new (NonPagedPool, kEntryTag) EnumeratingDevice;
    ASSERT_NE(nullptr, mDevice);
    mEntriesBefore = wdmsim::LivePoolBlockCount(kEntryTag);
    wdmsim::TakeDebugOutput();
  }
  void TearDown() override {
    delete mDevice;
    EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(kChildSetTag));
    if (mDriver != nullptr) {
      EXPECT_TRUE(wdmsim::UnloadDriver(mDriver));
    }
  }

  void ExpectFunction(const Function& actual, UCHAR firstNumber, ULONG count, const Bytes& expectedChild) {
    SCOPED_TRACE("function starting at interface " + std::to_string(firstNumber));
    EXPECT_EQ(firstNumber, actual.firstNumber);
    EXPECT_EQ(count, actual.count);
    EXPECT_EQ(expectedChild.size() - 9, actual.size);
    EXPECT_EQ(expectedChild, actual.childSet);
  }

  wdmsim::Kernel mKernel;
  PDRIVER_OBJECT mDriver = nullptr;
  EnumeratingDevice* mDevice = nullptr;
  size_t mEntriesBefore = 0;
};

TEST_F(InterfaceEnumerationTest, CdcAcmWithoutIadTakesItsDataInterfaceAndVendorStandsAlone) {
  Bytes if0 = Join({If(0, 0, 1, 0x02, 0x02, 0x01), ClassSpecific(0x00), ClassSpecific(0x02), Ep(0x81, 0x03)});
  Bytes if1 = Join({If(1, 0, 2, 0x0A, 0x00, 0x00), Ep(0x82, 0x02), Ep(0x02, 0x02)});
  Bytes if2 = Join({If(2, 0, 1, 0xFF, 0x00, 0x00), Ep(0x83, 0x02)});
  mDevice->HoldSet(ParentSet(3, {if0, if1, if2}));

  std::vector<Function> functions = mDevice->Enumerate();
  ASSERT_EQ(2u, functions.size());
  ExpectFunction(functions[0], 0, 2, ChildSet(2, {if0, if1}));
  ExpectFunction(functions[1], 2, 1, ChildSet(1, {if2}));
  // Both lists used up, nothing left behind.
  EXPECT_EQ(0u, mDevice->InterfaceEntries());
  EXPECT_EQ(mEntriesBefore, wdmsim::LivePoolBlockCount(kEntryTag));
}

TEST_F(InterfaceEnumerationTest, IadFunctionsComeFirstAndLeaveTheFollowingIadOut) {
  Bytes iadA = Iad(0, 2, 0x02);
  Bytes if0 = Join({If(0, 0, 1, 0x02, 0x02, 0x01), ClassSpecific(0x00), Ep(0x81, 0x03)});
  Bytes if1 = Join({If(1, 0, 2, 0x0A, 0x00, 0x00), Ep(0x82, 0x02), Ep(0x02, 0x02)});
  Bytes iadB = Iad(2, 2, 0x0E);
  Bytes if2 = Join({If(2, 0, 1, 0x0E, 0x01, 0x00), Ep(0x83, 0x03)});
  Bytes if3 = Join({If(3, 0, 0, 0x0E, 0x02, 0x00), If(3, 1, 1, 0x0E, 0x02, 0x00), Ep(0x84, 0x02)});
  // A CDC ACM interface standing alone after the IAD functions: its pairing finds no partner.
  Bytes if4 = Join({If(4, 0, 1, 0x02, 0x02, 0x00), Ep(0x85, 0x03)});
  mDevice->HoldSet(ParentSet(5, {iadA, if0, if1, iadB, if2, if3, if4}));

  mDevice->CreateLists();
  EXPECT_EQ(2u, mDevice->IadEntries());
  EXPECT_EQ(5u, mDevice->InterfaceEntries());
  mDevice->FreeLists();
  EXPECT_EQ(mEntriesBefore, wdmsim::LivePoolBlockCount(kEntryTag));

  wdmsim::TakeDebugOutput();
  std::vector<Function> functions = mDevice->Enumerate();
  ASSERT_EQ(3u, functions.size());
  ExpectFunction(functions[0], 0, 2, ChildSet(2, {if0, if1}));
  ExpectFunction(functions[1], 2, 2, ChildSet(2, {if2, if3}));
  ExpectFunction(functions[2], 4, 2, ChildSet(2, {if4}));
  std::string trace = wdmsim::TakeDebugOutput();
  EXPECT_NE(std::string::npos, trace.find("Device::GetInterfaces: found IAD\n"));
  EXPECT_NE(std::string::npos, trace.find("Device::CreateLists: if descriptor size 31\n"));  // if1 with iadB
  EXPECT_NE(std::string::npos, trace.find("Device::GetInterfaces: found NoIf:2, size:16\n"));
}

TEST_F(InterfaceEnumerationTest, AudioRunIsOneFunctionAndHidFollowsAlone) {
  Bytes if0 = Join({If(0, 0, 0, 0x01, 0x01, 0x00), ClassSpecific(0x01)});
  Bytes if1 = Join({If(1, 0, 0, 0x01, 0x02, 0x00), If(1, 1, 1, 0x01, 0x02, 0x00), ClassSpecific(0x01),
                    Ep(0x01, 0x09)});
  Bytes if2 = Join({If(2, 0, 0, 0x01, 0x02, 0x00), If(2, 1, 1, 0x01, 0x02, 0x00), Ep(0x82, 0x05)});
  Bytes if3 = Join({If(3, 0, 1, 0x03, 0x00, 0x00), Bytes{0x09, 0x21, 0x11, 0x01, 0x00, 0x01, 0x22, 0x20, 0x00},
                    Ep(0x83, 0x03)});
  mDevice->HoldSet(ParentSet(4, {if0, if1, if2, if3}));

  std::vector<Function> functions = mDevice->Enumerate();
  ASSERT_EQ(2u, functions.size());
  ExpectFunction(functions[0], 0, 3, ChildSet(3, {if0, if1, if2}));
  ExpectFunction(functions[1], 3, 1, ChildSet(1, {if3}));
}

TEST_F(InterfaceEnumerationTest, EcmWithoutIadAndItsDataInterfaceAreFunctionsOfTheirOwn) {
  Bytes if0 = Join({If(0, 0, 1, 0x02, 0x06, 0x00), ClassSpecific(0x00), ClassSpecific(0x0F), Ep(0x81, 0x03)});
  // The data interface's alternate settings and their endpoints stay in its one entry.
  Bytes if1 = Join({If(1, 0, 0, 0x0A, 0x00, 0x00), If(1, 1, 2, 0x0A, 0x00, 0x00), Ep(0x82, 0x02), Ep(0x02, 0x02)});
  mDevice->HoldSet(ParentSet(2, {if0, if1}));

  mDevice->CreateLists();
  EXPECT_EQ(2u, mDevice->InterfaceEntries());
  std::vector<Function> functions = mDevice->Enumerate();
  ASSERT_EQ(2u, functions.size());
  ExpectFunction(functions[0], 0, 1, ChildSet(1, {if0}));
  ExpectFunction(functions[1], 1, 1, ChildSet(1, {if1}));
}

TEST_F(InterfaceEnumerationTest, CdcSubclassesThatPairWithTheFollowingInterface) {
  struct Row {
    uint8_t subclass;
    ULONG count;
  };
  const Row rows[] = {{0x01, 1}, {0x02, 2}, {0x03, 1}, {0x0A, 1}, {0x0B, 2}, {0x0C, 1},
                      {0x0D, 2}, {0x0E, 1}, {0x87, 1}, {0x88, 2}, {0x89, 1}};
  for (const Row& row : rows) {
    SCOPED_TRACE("subclass " + std::to_string(row.subclass));
    Bytes if0 = Join({If(0, 0, 1, 0x02, row.subclass, 0x00), Ep(0x81, 0x03)});
    Bytes if1 = Join({If(1, 0, 1, 0x08, 0x06, 0x50), Ep(0x82, 0x02)});  // whatever follows goes along
    mDevice->HoldSet(ParentSet(2, {if0, if1}));
    std::vector<Function> functions = mDevice->Enumerate();
    ASSERT_EQ(row.count == 2 ? 1u : 2u, functions.size());
    if (row.count == 2) {
      ExpectFunction(functions[0], 0, 2, ChildSet(2, {if0, if1}));
    } else {
      ExpectFunction(functions[0], 0, 1, ChildSet(1, {if0}));
      ExpectFunction(functions[1], 1, 1, ChildSet(1, {if1}));
    }
  }
}

TEST_F(InterfaceEnumerationTest, NotificationInterfaceIsNeverOffered) {
  Bytes if0 = Join({If(0, 0, 1, 0x03, 0x00, 0x00), Ep(0x81, 0x03)});
  Bytes if1 = Join({If(1, 0, 1, 0xFF, 0x01, 0x01), Ep(0x82, 0x02)});  // near miss: protocol 1
  Bytes if2 = Join({If(2, 0, 2, 0x08, 0x06, 0x50), Ep(0x83, 0x02), Ep(0x03, 0x02)});
  Bytes if3 = Join({If(3, 0, 1, 0xFF, 0x01, 0x00), Ep(0x84, 0x03)});
  mDevice->HoldSet(ParentSet(4, {if0, if1, if2, if3}));

  std::vector<Function> functions = mDevice->Enumerate();
  ASSERT_EQ(3u, functions.size());
  ExpectFunction(functions[0], 0, 1, ChildSet(1, {if0}));
  ExpectFunction(functions[1], 1, 1, ChildSet(1, {if1}));
  // The function before it ends where the notification interface begins.
  ExpectFunction(functions[2], 2, 1, ChildSet(1, {if2}));
  EXPECT_EQ(mEntriesBefore, wdmsim::LivePoolBlockCount(kEntryTag));
}

TEST_F(InterfaceEnumerationTest, LastInterfaceRunsToTheEndOfTheSetAsHeld) {
  Bytes if0 = Join({If(0, 0, 1, 0x03, 0x00, 0x00), Ep(0x81, 0x03)});
  Bytes if1 = Join({If(1, 0, 1, 0xFF, 0x00, 0x00), Ep(0x82, 0x02), Bytes{0x04, 0x41, 0x01, 0x02}});
  Bytes set = ParentSet(2, {if0, if1});
  // Bytes past wTotalLength are not part of the set.
  Bytes padded = set;
  padded.insert(padded.end(), {0x09, 0x04, 0x02, 0x00, 0x00, 0xFF, 0x00, 0x00, 0x00});
  mDevice->HoldSet(padded);

  std::vector<Function> functions = mDevice->Enumerate();
  ASSERT_EQ(2u, functions.size());
  ExpectFunction(functions[1], 1, 1, ChildSet(1, {if1}));
}

TEST_F(InterfaceEnumerationTest, IadWhoseFirstInterfaceIsMissingEndsTheEnumeration) {
  Bytes if0 = Join({If(0, 0, 1, 0x03, 0x00, 0x00), Ep(0x81, 0x03)});
  Bytes iad = Iad(1, 2, 0xFF);  // names interfaces 1 and 2; there is no interface 1
  Bytes if2 = Join({If(2, 0, 1, 0xFF, 0x00, 0x00), Ep(0x82, 0x02)});
  Bytes if3 = Join({If(3, 0, 1, 0xFF, 0x00, 0x00), Ep(0x83, 0x02)});
  mDevice->HoldSet(ParentSet(3, {if0, iad, if2, if3}));

  mDevice->CreateLists();
  ULONG count = 0;
  ULONG size = 0;
  EXPECT_EQ(nullptr, mDevice->GetInterfaces(&count, &size));
  EXPECT_EQ(2u, count);                  // as the IAD says
  EXPECT_EQ(ULONG(if2.size()), size);    // the interface it did find was consumed
  // Interfaces 0 and 3 wait for the next CreateLists or the destructor.
  EXPECT_EQ(2u, mDevice->InterfaceEntries());
  EXPECT_EQ(mEntriesBefore + 2, wdmsim::LivePoolBlockCount(kEntryTag));
  mDevice->CreateLists();
  EXPECT_EQ(3u, mDevice->InterfaceEntries());
  EXPECT_EQ(1u, mDevice->IadEntries());
}

TEST_F(InterfaceEnumerationTest, IadNamingMissingInterfacesKeepsItsCount) {
  Bytes iad = Iad(0, 3, 0xFF);  // interface 2 does not exist
  Bytes if0 = Join({If(0, 0, 1, 0xFF, 0x00, 0x00), Ep(0x81, 0x02)});
  Bytes if1 = Join({If(1, 0, 1, 0xFF, 0x00, 0x00), Ep(0x82, 0x02)});
  mDevice->HoldSet(ParentSet(2, {iad, if0, if1}));

  std::vector<Function> functions = mDevice->Enumerate();
  ASSERT_EQ(1u, functions.size());
  ExpectFunction(functions[0], 0, 3, ChildSet(3, {if0, if1}));
}

TEST_F(InterfaceEnumerationTest, EntriesThatCannotBeAllocatedAreLeftOut) {
  Bytes iad = Iad(0, 2, 0xFF);
  Bytes if0 = Join({If(0, 0, 1, 0xFF, 0x00, 0x00), Ep(0x81, 0x02)});
  Bytes if1 = Join({If(1, 0, 1, 0xFF, 0x00, 0x00), Ep(0x82, 0x02)});
  Bytes if2 = Join({If(2, 0, 1, 0x03, 0x00, 0x00), Ep(0x83, 0x03)});
  mDevice->HoldSet(ParentSet(3, {iad, if0, if1, if2}));

  // The IAD entry fails: interfaces 0 and 1 become functions of their own.
  wdmsim::FailNthPoolAllocation(1);
  std::vector<Function> functions = mDevice->Enumerate();
  wdmsim::ClearPoolFaults();
  EXPECT_NE(std::string::npos, wdmsim::TakeDebugOutput().find("Device::CreateLists: no memory, iad\n"));
  ASSERT_EQ(3u, functions.size());
  // The IAD stands before interface 0, in no stretch: the sizes are unchanged.
  ExpectFunction(functions[1], 1, 1, ChildSet(1, {if1}));

  // The entry of interface 1 fails: no function offers it.
  wdmsim::FailNthPoolAllocation(3);
  mDevice->CreateLists();
  wdmsim::ClearPoolFaults();
  EXPECT_NE(std::string::npos, wdmsim::TakeDebugOutput().find("Device::CreateLists: no memory, ifd\n"));
  EXPECT_EQ(2u, mDevice->InterfaceEntries());
  EXPECT_EQ(nullptr, mDevice->TakeInterface(1));
  InterfaceEntry* entry = mDevice->TakeInterface(2);
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(2, entry->mDescriptor->bInterfaceNumber);
  EXPECT_EQ(ULONGLONG(if2.size()), entry->mSize);
  delete entry;
  EXPECT_EQ(1u, mDevice->InterfaceEntries());
}

std::string DeviceFile(const std::string& name) {
  std::string here = __FILE__;
  return here.substr(0, here.rfind("/usbmi/")) + "/devices/" + name;
}

TEST_F(InterfaceEnumerationTest, DemoCompositeFileGivesTwoIadFunctionsAndTheVendorInterface) {
  wdmsim::UsbDescriptionResult loaded = wdmsim::LoadUsbDescription(DeviceFile("demo_composite.bin"));
  ASSERT_TRUE(loaded);
  const Bytes& set = loaded.description->configurations.at(0);
  ASSERT_EQ(180u, set.size());
  mDevice->HoldSet(set);

  // Offsets as laid out in demo_composite.hex: IAD 9, interfaces 0 at 17, 1 at 52, IAD 75,
  // 2 at 83, 3 at 118, vendor 4 at 141, notification 5 at 164.
  auto slice = [&set](size_t from, size_t to) { return Bytes(set.begin() + from, set.begin() + to); };
  Bytes header = slice(0, 9);
  auto child = [&header](uint8_t interfaces, const Bytes& body) {
    Bytes expected = header;
    expected[2] = uint8_t(9 + body.size());
    expected[3] = 0;
    expected[4] = interfaces;
    expected.insert(expected.end(), body.begin(), body.end());
    return expected;
  };
  std::vector<Function> functions = mDevice->Enumerate();
  ASSERT_EQ(3u, functions.size());
  ExpectFunction(functions[0], 0, 2, child(2, slice(17, 75)));
  ExpectFunction(functions[1], 2, 2, child(2, slice(83, 141)));
  ExpectFunction(functions[2], 4, 1, child(1, slice(141, 164)));
}

TEST_F(InterfaceEnumerationTest, ChildSetAllocationFailureYieldsNull) {
  Bytes if0 = Join({If(0, 0, 1, 0x03, 0x00, 0x00), Ep(0x81, 0x03)});
  Bytes set = ParentSet(1, {if0});
  wdmsim::FailPoolAllocationsWithTag(kChildSetTag);
  EXPECT_EQ(nullptr, Device::BuildChildConfigurationDescriptor(
                         reinterpret_cast<const USB_CONFIGURATION_DESCRIPTOR*>(set.data()), ULONG(set.size()),
                         reinterpret_cast<const USB_INTERFACE_DESCRIPTOR*>(set.data() + 9), 1, ULONG(if0.size())));
  wdmsim::ClearPoolFaults();
}

}  // namespace
