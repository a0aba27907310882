// What the simulated hub tells the PnP manager about a device and about itself: the
// identifiers Windows' hub forms, texts, capabilities, the device node, the parent hub and
// the hub's node information.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdmsim/io.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pnp.h>
#include <wdmsim/usbbus.h>
#include <wdmsim/usbdevice.h>

#include "usb_bus_requests.h"

namespace {

using Strings = std::vector<std::u16string>;

class UsbBusIdentity : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
};

std::shared_ptr<wdmsim::UsbFirmware> Firmware(const wdmsim::UsbDeviceDescription& description) {
  return std::make_shared<wdmsim::UsbFirmware>(description);
}

// Class 00, one configuration with two interfaces: what the generic parent loads on.
wdmsim::UsbDeviceDescription PerInterfaceComposite(const std::u16string& serial) {
  wdmsim::UsbDescriptionBuilder builder(0x1234, 0xABCD);
  builder.DeviceClass(0, 0, 0).DeviceRelease(0x0203).Configuration(1, 0x80, 100);
  builder.Interface(0, 0, 0x03, 0x01, 0x02).InterruptIn(0x81, 8, 10);
  builder.Interface(1, 0, 0xFF, 0x00, 0x00).BulkIn(0x82).BulkOut(0x02);
  if (!serial.empty()) builder.SerialNumber(serial);
  return builder.Build();
}

DEVICE_CAPABILITIES QueryCapabilities(PDEVICE_OBJECT pdo) {
  DEVICE_CAPABILITIES caps;
  memset(&caps, 0, sizeof(caps));
  caps.Version = 1;
  caps.Size = sizeof(caps);
  caps.Address = 0xFFFFFFFF;
  EXPECT_EQ(STATUS_SUCCESS, wdmsim::SendPnpIrp(pdo, IRP_MN_QUERY_CAPABILITIES, [&caps](IO_STACK_LOCATION& s) {
                              s.Parameters.DeviceCapabilities.Capabilities = &caps;
                            }).Status);
  return caps;
}

PDEVICE_OBJECT ParentHub(PDEVICE_OBJECT pdo) {
  PDEVICE_OBJECT parent = nullptr;
  EXPECT_EQ(STATUS_SUCCESS, usbtest::SendInternal(pdo, IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO, &parent));
  return parent;
}

std::u16string DriverName(PDEVICE_OBJECT device) {
  const UNICODE_STRING& name = device->DriverObject->DriverName;
  return std::u16string(reinterpret_cast<const char16_t*>(name.Buffer), name.Length / 2);
}

// IOCTL_USB_GET_NODE_INFORMATION at the top of the hub's stack, as a driver sends it.
NTSTATUS NodeInformation(PDEVICE_OBJECT hubPdo, USB_NODE_INFORMATION* info, ULONG length, ULONG_PTR* returned) {
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IO_STATUS_BLOCK status = {};
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(hubPdo);
  PIRP irp = IoBuildDeviceIoControlRequest(IOCTL_USB_GET_NODE_INFORMATION, top, nullptr, 0, info, length, FALSE,
                                           &event, &status);
  if (IoCallDriver(top, irp) == STATUS_PENDING) KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
  ObDereferenceObject(top);
  *returned = status.Information;
  return status.Status;
}

TEST_F(UsbBusIdentity, DemoDeviceIsNamedByItsDescriptorsAndItsPort) {
  wdmsim::UsbTestBus bus;
  PDEVICE_OBJECT pdo = bus.Attach(wdmsim::MakeDemoCompositeFirmware(), 3);
  ASSERT_NE(nullptr, pdo);
  EXPECT_EQ(u"\\Driver\\usbhub", DriverName(pdo));
  EXPECT_TRUE(pdo->Flags & DO_BUS_ENUMERATED_DEVICE);
  EXPECT_FALSE(wdmsim::DeviceObjectName(pdo).empty());

  EXPECT_EQ(Strings{u"USB\\VID_4A9B&PID_0042"}, usbtest::QueryIds(pdo, BusQueryDeviceID));
  EXPECT_EQ((Strings{u"USB\\VID_4A9B&PID_0042&REV_0442", u"USB\\VID_4A9B&PID_0042"}),
            usbtest::QueryIds(pdo, BusQueryHardwareIDs));
  // Two configurations: not for the generic parent, so the device class names it.
  EXPECT_EQ((Strings{u"USB\\Class_EF&SubClass_02&Prot_01", u"USB\\Class_EF&SubClass_02", u"USB\\Class_EF"}),
            usbtest::QueryIds(pdo, BusQueryCompatibleIDs));
  EXPECT_EQ(Strings{u"WDMSIM-DEMO-0001"}, usbtest::QueryIds(pdo, BusQueryInstanceID));
  EXPECT_EQ(u"wdmsim Demo Composite Device", usbtest::QueryText(pdo, DeviceTextDescription));
  EXPECT_EQ(u"Port_#0003.Hub_#0001", usbtest::QueryText(pdo, DeviceTextLocationInformation));

  DEVICE_CAPABILITIES caps = QueryCapabilities(pdo);
  EXPECT_EQ(PowerDeviceD0, caps.DeviceState[PowerSystemWorking]);
  EXPECT_EQ(PowerDeviceD2, caps.DeviceState[PowerSystemSleeping3]);
  EXPECT_EQ(PowerDeviceD3, caps.DeviceState[PowerSystemHibernate]);
  EXPECT_EQ(1u, caps.DeviceD2);
  EXPECT_EQ(1u, caps.WakeFromD2);  // the first configuration declares remote wakeup
  EXPECT_EQ(PowerDeviceD2, caps.DeviceWake);
  EXPECT_EQ(1u, caps.Removable);
  EXPECT_EQ(0u, caps.SurpriseRemovalOK);
  EXPECT_EQ(1u, caps.UniqueID);
  EXPECT_EQ(3u, caps.Address);

  // The device node places the hardware key where the driver's settings live.
  EXPECT_EQ(u"\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\USB\\VID_4A9B&PID_0042\\WDMSIM-DEMO-0001"
            u"\\Device Parameters",
            wdmsim::DeviceHardwareKeyPath(pdo));
  WCHAR text[128];
  ULONG length = 0;
  ASSERT_EQ(STATUS_SUCCESS, IoGetDeviceProperty(pdo, DevicePropertyLocationInformation, sizeof(text), text, &length));
  EXPECT_EQ(u"Port_#0003.Hub_#0001", std::u16string(reinterpret_cast<char16_t*>(text)));
}

TEST_F(UsbBusIdentity, CompositeAndInstanceRulesFollowTheWindowsHub) {
  struct Case {
    std::u16string serial;
    std::u16string instance;  // empty: the port-based instance
  };
  const Case cases[] = {
      {u"A1B2", u"A1B2"},
      {u"A,B", u""},             // a comma cannot be part of an instance identifier
      {u"caf\u00e9", u""},       // neither can anything beyond ASCII
      {u"", u""},
  };
  wdmsim::UsbTestBus bus(6);
  int port = 1;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.serial.begin(), c.serial.end()));
    PDEVICE_OBJECT pdo = bus.Attach(Firmware(PerInterfaceComposite(c.serial)), port);
    ASSERT_NE(nullptr, pdo);
    EXPECT_EQ((Strings{u"USB\\DevClass_00&SubClass_00&Prot_00", u"USB\\DevClass_00&SubClass_00", u"USB\\DevClass_00",
                       u"USB\\COMPOSITE"}),
              usbtest::QueryIds(pdo, BusQueryCompatibleIDs));
    EXPECT_EQ((Strings{u"USB\\VID_1234&PID_ABCD&REV_0203", u"USB\\VID_1234&PID_ABCD"}),
              usbtest::QueryIds(pdo, BusQueryHardwareIDs));
    Strings instance = usbtest::QueryIds(pdo, BusQueryInstanceID);
    ASSERT_EQ(1u, instance.size());
    if (c.instance.empty()) {
      // The bare port number: only unique below the hub.
      EXPECT_EQ(std::u16string(1, u'0' + port), instance[0]);
      EXPECT_EQ(0u, QueryCapabilities(pdo).UniqueID);
    } else {
      EXPECT_EQ(c.instance, instance[0]);
      EXPECT_EQ(1u, QueryCapabilities(pdo).UniqueID);
    }
    EXPECT_EQ(u"USB Composite Device", usbtest::QueryText(pdo, DeviceTextDescription));
    ++port;
  }

  // A class-00 device with one interface is named by that interface's class.
  wdmsim::UsbDescriptionBuilder single(0x1234, 0x0001);
  single.DeviceClass(0, 0, 0).Configuration(1, 0x80, 100).Interface(0, 0, 0x08, 0x06, 0x50).BulkIn(0x81).BulkOut(0x01);
  PDEVICE_OBJECT pdo = bus.Attach(Firmware(single.Build()), 0);
  ASSERT_NE(nullptr, pdo);
  EXPECT_EQ((Strings{u"USB\\Class_08&SubClass_06&Prot_50", u"USB\\Class_08&SubClass_06", u"USB\\Class_08"}),
            usbtest::QueryIds(pdo, BusQueryCompatibleIDs));
  EXPECT_EQ(u"USB Device", usbtest::QueryText(pdo, DeviceTextDescription));
}

TEST_F(UsbBusIdentity, ParentHubIsTheRootHubOrTheExternalHubsPdo) {
  wdmsim::UsbTestBus bus(2);
  PDEVICE_OBJECT onRoot = bus.Attach(wdmsim::MakeDemoCompositeFirmware(), 1);
  ASSERT_NE(nullptr, onRoot);
  PDEVICE_OBJECT root = ParentHub(onRoot);
  EXPECT_EQ(wdmsim::UsbHubPdo(bus.RootHub()), root);
  EXPECT_EQ(u"\\Driver\\usbehci", DriverName(root));
  EXPECT_EQ(Strings{u"USB\\ROOT_HUB20"}, usbtest::QueryIds(root, BusQueryDeviceID));

  const int selfPowered = bus.AttachHub(bus.RootHub(), 2, 4, false);
  const int busPowered = bus.AttachHub(selfPowered, 4, 7, true);
  ASSERT_NE(0, busPowered);
  PDEVICE_OBJECT behindBoth = bus.Attach(wdmsim::MakeDemoCompositeFirmware(), 1, busPowered);
  ASSERT_NE(nullptr, behindBoth);
  PDEVICE_OBJECT parent = ParentHub(behindBoth);
  EXPECT_EQ(wdmsim::UsbHubPdo(busPowered), parent);
  EXPECT_EQ(u"\\Driver\\usbhub", DriverName(parent));
  EXPECT_EQ(u"Port_#0001.Hub_#0003", usbtest::QueryText(behindBoth, DeviceTextLocationInformation));
  EXPECT_EQ((Strings{u"USB\\Class_09&SubClass_00&Prot_01", u"USB\\Class_09&SubClass_00", u"USB\\Class_09"}),
            usbtest::QueryIds(parent, BusQueryCompatibleIDs));

  struct Expected {
    PDEVICE_OBJECT hubPdo;
    UCHAR ports;
    BOOLEAN busPowered;
  };
  for (const Expected& e : {Expected{root, 2, FALSE}, Expected{wdmsim::UsbHubPdo(selfPowered), 4, FALSE},
                            Expected{parent, 7, TRUE}}) {
    USB_NODE_INFORMATION info;
    memset(&info, 0xCC, sizeof(info));
    ULONG_PTR returned = 0;
    ASSERT_EQ(STATUS_SUCCESS, NodeInformation(e.hubPdo, &info, sizeof(info), &returned));
    EXPECT_EQ(76u, returned);
    EXPECT_EQ(UsbHub, info.NodeType);
    const USB_HUB_DESCRIPTOR& d = info.u.HubInformation.HubDescriptor;
    EXPECT_EQ(0x29, d.bDescriptorType);
    EXPECT_EQ(e.ports, d.bNumberOfPorts);
    EXPECT_EQ(9, d.bDescriptorLength);  // up to 7 ports: one byte each of removable and power masks
    EXPECT_EQ(e.busPowered, info.u.HubInformation.HubIsBusPowered);
  }
  // A buffer one byte short gets nothing.
  USB_NODE_INFORMATION info;
  ULONG_PTR returned = 1;
  EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, NodeInformation(root, &info, sizeof(info) - 1, &returned));
  EXPECT_EQ(0u, returned);
}

}  // namespace
