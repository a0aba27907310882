// A device that arrives is queried, bound through its INF, added and started in the order
// Windows uses, and what the queries answered becomes its properties and keys.
#include <gtest/gtest.h>

#include <algorithm>

#include <wdmsim/pnp.h>
#include <wdmsim/registry.h>

#include "pnp_test_drivers.h"

namespace {

using pnptest::Names;

class PnpArrival : public ::testing::Test {
 protected:
  wdmsim::Kernel kernel;
  pnptest::TestDrivers drivers;
};

TEST_F(PnpArrival, QueriesBindsAddsStartsThenAsksAgainInWindowsOrder) {
  drivers.Add(u"pnpfunc");
  pnptest::Install("pnpfunc", {{"INF text of the gadget", {"WDMSIM\\GADGET&REV_0001", "WDMSIM\\GADGET"}}},
                   "HKR,,\"FromInf\",0x00010001,0x1234\n");
  PDEVICE_OBJECT pdo = pnptest::CreateDevice(u"WDMSIM\\GADGET", {u"WDMSIM\\GADGET&REV_0001", u"WDMSIM\\GADGET"},
                                             {u"WDMSIM\\CLASS_01"}, u"7");
  wdmsim::DeviceNodeId id = wdmsim::ReportRootDevice(pdo);
  wdmsim::WaitForPnpIdle();

  EXPECT_EQ(Names(id), std::vector<std::string>({
                           "QUERY_ID DeviceID",
                           "QUERY_CAPABILITIES",
                           "QUERY_ID InstanceID",
                           "QUERY_ID HardwareIDs",
                           "QUERY_ID CompatibleIDs",
                           "QUERY_DEVICE_TEXT Description",
                           "QUERY_DEVICE_TEXT Location",
                           "QUERY_BUS_INFORMATION",
                           "QUERY_RESOURCES",
                           "QUERY_RESOURCE_REQUIREMENTS",
                           "AddDevice pnpfunc",
                           "FILTER_RESOURCE_REQUIREMENTS",
                           "START_DEVICE",
                           "QUERY_CAPABILITIES",
                           "QUERY_PNP_DEVICE_STATE",
                           "QUERY_DEVICE_RELATIONS BusRelations",
                       }));
  // Only the requests after AddDevice reach the function driver.
  EXPECT_EQ(drivers.TakeLog(),
            std::vector<std::string>({"pnpfunc AddDevice", "pnpfunc FILTER_RESOURCE_REQUIREMENTS",
                                      "pnpfunc START_DEVICE", "pnpfunc QUERY_CAPABILITIES",
                                      "pnpfunc QUERY_PNP_DEVICE_STATE", "pnpfunc QUERY_DEVICE_RELATIONS"}));

  auto node = wdmsim::GetDeviceNode(id);
  ASSERT_TRUE(node.has_value());
  EXPECT_EQ(node->state, wdmsim::DeviceNodeState::Started);
  EXPECT_EQ(node->service, u"pnpfunc");
  EXPECT_EQ(node->deviceId, u"WDMSIM\\GADGET");
  EXPECT_EQ(node->hardwareIds, std::vector<std::u16string>({u"WDMSIM\\GADGET&REV_0001", u"WDMSIM\\GADGET"}));
  EXPECT_EQ(node->compatibleIds, std::vector<std::u16string>({u"WDMSIM\\CLASS_01"}));
  EXPECT_EQ(node->busDescription, u"bus text of WDMSIM\\GADGET");
  EXPECT_EQ(node->description, u"INF text of the gadget");
  EXPECT_EQ(node->location, u"Port_#0001");
  EXPECT_EQ(node->parent, 0u);
  EXPECT_EQ(wdmsim::RootDeviceNodes(), std::vector<wdmsim::DeviceNodeId>({id}));

  // The properties a driver reads are the INF's description and the bus's location.
  WCHAR buffer[64];
  ULONG length = 0;
  ASSERT_EQ(IoGetDeviceProperty(pdo, DevicePropertyDeviceDescription, sizeof buffer, buffer, &length), STATUS_SUCCESS);
  EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(buffer)), u"INF text of the gadget");
  ASSERT_EQ(IoGetDeviceProperty(pdo, DevicePropertyLocationInformation, sizeof buffer, buffer, &length), STATUS_SUCCESS);
  EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(buffer)), u"Port_#0001");
  // The INF's .HW AddReg went to the hardware key before the driver was added.
  auto value = wdmsim::RegistryGetValue(wdmsim::DeviceHardwareKeyPath(pdo), u"FromInf");
  ASSERT_TRUE(value.has_value());
  EXPECT_EQ(value->type, static_cast<uint32_t>(REG_DWORD));
  EXPECT_EQ(value->data, std::vector<uint8_t>({0x34, 0x12, 0, 0}));

  EXPECT_EQ(wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, id), STATUS_SUCCESS);
  wdmsim::DeleteRawPdo(pdo);
}

TEST_F(PnpArrival, InstanceIdGetsAParentPrefixUnlessTheBusVouchesForIt) {
  drivers.Add(u"pnpfunc");
  pnptest::Install("pnpfunc", {{"gadget", {"WDMSIM\\GADGET"}}});
  PDEVICE_OBJECT shared = pnptest::CreateDevice(u"WDMSIM\\GADGET", {u"WDMSIM\\GADGET"}, {}, u"5", false);
  PDEVICE_OBJECT unique = pnptest::CreateDevice(u"WDMSIM\\GADGET", {u"WDMSIM\\GADGET"}, {}, u"SERIAL42", true);
  wdmsim::DeviceNodeId sharedId = wdmsim::ReportRootDevice(shared);
  wdmsim::DeviceNodeId uniqueId = wdmsim::ReportRootDevice(unique);
  wdmsim::WaitForPnpIdle();

  auto sharedNode = wdmsim::GetDeviceNode(sharedId);
  auto uniqueNode = wdmsim::GetDeviceNode(uniqueId);
  // Depth 0, the CRC-32 of "HTREE\ROOT\0" in UTF-16LE (python: zlib.crc32), counter 0.
  EXPECT_EQ(sharedNode->instanceId, u"0&f6986f3e&0&5");
  EXPECT_EQ(sharedNode->instancePath, u"WDMSIM\\GADGET\\0&f6986f3e&0&5");
  EXPECT_EQ(uniqueNode->instancePath, u"WDMSIM\\GADGET\\SERIAL42");
  EXPECT_EQ(wdmsim::FindDeviceNodeByInstancePath(u"WDMSIM\\GADGET\\SERIAL42"), uniqueId);
  EXPECT_EQ(wdmsim::FindDeviceNodeByPdo(shared), sharedId);
  EXPECT_EQ(wdmsim::DeviceHardwareKeyPath(unique),
            u"\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\WDMSIM\\GADGET\\SERIAL42\\Device Parameters");

  // One driver object serves both devices; it goes with the last of them.
  EXPECT_EQ(drivers.LiveFdos(u"pnpfunc"), 2);
  wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, sharedId);
  auto log = drivers.TakeLog();
  EXPECT_EQ(std::count(log.begin(), log.end(), "pnpfunc Unload"), 0);
  wdmsim::RunPnpOperation(wdmsim::PnpOperation::SurpriseRemoval, uniqueId);
  log = drivers.TakeLog();
  EXPECT_EQ(std::count(log.begin(), log.end(), "pnpfunc Unload"), 1);
  EXPECT_EQ(std::count(log.begin(), log.end(), "pnpfunc AddDevice"), 0);
  wdmsim::DeleteRawPdo(shared);
  wdmsim::DeleteRawPdo(unique);
}

}  // namespace
