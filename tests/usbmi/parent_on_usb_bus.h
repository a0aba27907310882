// A parent Device on a device of the simulated USB bus, driven the way the PnP manager
// drives it: AddDevice, start, bus relations, the children's identifier and text queries,
// stop and removal. Tests set the device's hardware key and properties first.
#pragma once
#include <gtest/gtest.h>

#include <ntddk.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <wdmsim/kernel.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

namespace usbmitest {

// One child as the PnP manager sees it.
struct ChildView {
  PDEVICE_OBJECT device = nullptr;
  std::optional<std::u16string> deviceId;
  std::vector<std::u16string> hardwareIds;
  std::vector<std::u16string> compatibleIds;
  std::optional<std::u16string> instanceId;
  std::optional<std::u16string> description;
  std::optional<std::u16string> location;
};

class ParentOnUsbBus : public testing::Test {
 protected:
  static constexpr const char16_t* kParentDescription = u"Composite Parent";
  static constexpr const char16_t* kParentLocation = u"Port_#0001.Hub_#0001";

  void SetUp() override;
  void TearDown() override;

  // Attaches the device to the hub (0: the root hub), registers its device node (a hardware
  // key of its own for every plug) with the parent's texts. Returns its PDO.
  PDEVICE_OBJECT Plug(std::shared_ptr<wdmsim::UsbFirmware> firmware, int hub = 0);
  // SET_CONFIGURATION requests the device received since the last call: their wValue.
  std::vector<uint16_t> TakeSetConfigurations();
  // Pulls the plugged device out again (the parent must be removed) and lets the hub
  // remove its PDO.
  void Unplug();
  void SetSetting(const std::u16string& name, ULONG value);
  void SetStringSetting(const std::u16string& name, const std::u16string& value);

  // AddDevice of the usbmi driver on the plugged PDO.
  NTSTATUS Add();
  // IRP_MN_START_DEVICE as the PnP manager sends it; the device must be added.
  NTSTATUS Start();
  NTSTATUS AddAndStart();
  // The parent's bus relations answer; the references it carries are dropped.
  std::vector<PDEVICE_OBJECT> QueryBusRelations();
  // The child's identifiers and texts, each missing when the query fails.
  ChildView QueryChild(PDEVICE_OBJECT child);
  // QueryBusRelations with every child queried, in answer order.
  std::vector<ChildView> Children();
  NTSTATUS SendToParent(UCHAR minorFunction);
  // Removes the parent (the bus FDO destroys whatever children are still in its list).
  void RemoveParent();

  std::string TakeTrace();

  std::unique_ptr<wdmsim::Kernel> mKernel;
  std::unique_ptr<wdmsim::UsbTestBus> mBus;
  PDRIVER_OBJECT mDriver = nullptr;
  std::shared_ptr<wdmsim::UsbFirmware> mFirmware;
  PDEVICE_OBJECT mPdo = nullptr;
  PDEVICE_OBJECT mFdo = nullptr;
  int mHub = 0;
  int mPort = 0;
  int mPlugs = 0;
};

bool Contains(const std::string& text, const std::string& part);

}  // namespace usbmitest
