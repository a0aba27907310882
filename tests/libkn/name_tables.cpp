// The name tables: every listed code by the platform's own symbol, the holes and the first
// codes past the end; the generated NTSTATUS table against the platform's ntstatus.h.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <ntddk.h>
#include <usb.h>
#include <usb200.h>

#include "knnametables.h"
#include "knpnpdeviceobject.h"

namespace {

// A code and the symbol that names it in the platform's headers.
#define N(code) {code, #code}
#define STATE(code) {KnPnPState_##code, "KnPnPDeviceObject::KnPnPState_" #code}

struct NameTable {
  const char* title;
  const char* (*lookUp)(ULONG);
  std::vector<std::pair<ULONG, const char*>> names;
  std::vector<ULONG> unknown;  // codes that must print "unknown"
};

TEST(NameTables, EveryListedCodeAndEveryGap) {
  const NameTable tables[] = {
      {"PnP minor functions", KnPnpMinorFunctionName,
       {N(IRP_MN_START_DEVICE), N(IRP_MN_QUERY_REMOVE_DEVICE), N(IRP_MN_REMOVE_DEVICE),
        N(IRP_MN_CANCEL_REMOVE_DEVICE), N(IRP_MN_STOP_DEVICE), N(IRP_MN_QUERY_STOP_DEVICE),
        N(IRP_MN_CANCEL_STOP_DEVICE), N(IRP_MN_QUERY_DEVICE_RELATIONS), N(IRP_MN_QUERY_INTERFACE),
        N(IRP_MN_QUERY_CAPABILITIES), N(IRP_MN_QUERY_RESOURCES), N(IRP_MN_QUERY_RESOURCE_REQUIREMENTS),
        N(IRP_MN_QUERY_DEVICE_TEXT), N(IRP_MN_FILTER_RESOURCE_REQUIREMENTS), N(IRP_MN_READ_CONFIG),
        N(IRP_MN_WRITE_CONFIG), N(IRP_MN_EJECT), N(IRP_MN_SET_LOCK), N(IRP_MN_QUERY_ID),
        N(IRP_MN_QUERY_PNP_DEVICE_STATE), N(IRP_MN_QUERY_BUS_INFORMATION), N(IRP_MN_DEVICE_USAGE_NOTIFICATION),
        N(IRP_MN_SURPRISE_REMOVAL), N(IRP_MN_QUERY_LEGACY_BUS_INFORMATION)},
       {0x0E, 0x19, 0xFF, 0xFFFFFFFF}},
      {"PnP states", KnPnPStateName,
       {STATE(Initializing), STATE(Added), STATE(Started), STATE(StopPending), STATE(Stopped), STATE(RemovePending),
        STATE(Removed), STATE(SurpriseRemoved)},
       {8, 0x80000000}},
      {"power minor functions", KnPowerMinorFunctionName,
       {N(IRP_MN_WAIT_WAKE), N(IRP_MN_POWER_SEQUENCE), N(IRP_MN_SET_POWER), N(IRP_MN_QUERY_POWER)},
       {4, 0x100}},
      {"device relation types", KnDeviceRelationTypeName,
       {N(BusRelations), N(EjectionRelations), N(PowerRelations), N(RemovalRelations), N(TargetDeviceRelation)},
       {SingleBusRelations, TransportRelations}},
      {"identifier query types", KnBusQueryIdTypeName,
       {N(BusQueryDeviceID), N(BusQueryHardwareIDs), N(BusQueryCompatibleIDs), N(BusQueryInstanceID),
        N(BusQueryDeviceSerialNumber)},
       {BusQueryContainerID}},
      {"device text types", KnDeviceTextTypeName, {N(DeviceTextDescription), N(DeviceTextLocationInformation)}, {2}},
      {"system power states", KnSystemPowerStateName,
       {N(PowerSystemUnspecified), N(PowerSystemWorking), N(PowerSystemSleeping1), N(PowerSystemSleeping2),
        N(PowerSystemSleeping3), N(PowerSystemHibernate), N(PowerSystemShutdown), N(PowerSystemMaximum)},
       {8}},
      {"device power states", KnDevicePowerStateName,
       {N(PowerDeviceUnspecified), N(PowerDeviceD0), N(PowerDeviceD1), N(PowerDeviceD2), N(PowerDeviceD3),
        N(PowerDeviceMaximum)},
       {6}},
      {"power state types", KnPowerStateTypeName, {N(SystemPowerState), N(DevicePowerState)}, {2}},
      {"power actions", KnPowerActionName,
       {N(PowerActionNone), N(PowerActionReserved), N(PowerActionSleep), N(PowerActionHibernate),
        N(PowerActionShutdown), N(PowerActionShutdownReset), N(PowerActionShutdownOff)},
       {PowerActionWarmEject}},
      {"USB descriptor types", KnDescriptorTypeName,
       {N(USB_DEVICE_DESCRIPTOR_TYPE), N(USB_CONFIGURATION_DESCRIPTOR_TYPE), N(USB_INTERFACE_DESCRIPTOR_TYPE),
        N(USB_ENDPOINT_DESCRIPTOR_TYPE), N(USB_RESERVED_DESCRIPTOR_TYPE), N(USB_CONFIG_POWER_DESCRIPTOR_TYPE),
        N(USB_INTERFACE_POWER_DESCRIPTOR_TYPE)},
       {0, USB_STRING_DESCRIPTOR_TYPE, 9, 0x21, 0x24}},
      // Every function code up to 0x32; 0x1E by its older alias.
      {"URB functions", KnUrbFunctionName,
       {N(URB_FUNCTION_SELECT_CONFIGURATION), N(URB_FUNCTION_SELECT_INTERFACE), N(URB_FUNCTION_ABORT_PIPE),
        N(URB_FUNCTION_TAKE_FRAME_LENGTH_CONTROL), N(URB_FUNCTION_RELEASE_FRAME_LENGTH_CONTROL),
        N(URB_FUNCTION_GET_FRAME_LENGTH), N(URB_FUNCTION_SET_FRAME_LENGTH), N(URB_FUNCTION_GET_CURRENT_FRAME_NUMBER),
        N(URB_FUNCTION_CONTROL_TRANSFER), N(URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER), N(URB_FUNCTION_ISOCH_TRANSFER),
        N(URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE), N(URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE),
        N(URB_FUNCTION_SET_FEATURE_TO_DEVICE), N(URB_FUNCTION_SET_FEATURE_TO_INTERFACE),
        N(URB_FUNCTION_SET_FEATURE_TO_ENDPOINT), N(URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE),
        N(URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE), N(URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT),
        N(URB_FUNCTION_GET_STATUS_FROM_DEVICE), N(URB_FUNCTION_GET_STATUS_FROM_INTERFACE),
        N(URB_FUNCTION_GET_STATUS_FROM_ENDPOINT), N(URB_FUNCTION_RESERVED_0X0016), N(URB_FUNCTION_VENDOR_DEVICE),
        N(URB_FUNCTION_VENDOR_INTERFACE), N(URB_FUNCTION_VENDOR_ENDPOINT), N(URB_FUNCTION_CLASS_DEVICE),
        N(URB_FUNCTION_CLASS_INTERFACE), N(URB_FUNCTION_CLASS_ENDPOINT), N(URB_FUNCTION_RESERVE_0X001D),
        N(URB_FUNCTION_RESET_PIPE), N(URB_FUNCTION_CLASS_OTHER), N(URB_FUNCTION_VENDOR_OTHER),
        N(URB_FUNCTION_GET_STATUS_FROM_OTHER), N(URB_FUNCTION_CLEAR_FEATURE_TO_OTHER),
        N(URB_FUNCTION_SET_FEATURE_TO_OTHER), N(URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT),
        N(URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT), N(URB_FUNCTION_GET_CONFIGURATION), N(URB_FUNCTION_GET_INTERFACE),
        N(URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE), N(URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE),
        N(URB_FUNCTION_GET_MS_FEATURE_DESCRIPTOR), N(URB_FUNCTION_RESERVE_0X002B), N(URB_FUNCTION_RESERVE_0X002C),
        N(URB_FUNCTION_RESERVE_0X002D), N(URB_FUNCTION_RESERVE_0X002E), N(URB_FUNCTION_RESERVE_0X002F),
        N(URB_FUNCTION_SYNC_RESET_PIPE), N(URB_FUNCTION_SYNC_CLEAR_STALL), N(URB_FUNCTION_CONTROL_TRANSFER_EX)},
       {0x33, URB_FUNCTION_OPEN_STATIC_STREAMS, 0xFFFF}},
  };
  for (const NameTable& table : tables) {
    for (const auto& [code, name] : table.names) {
      EXPECT_STREQ(table.lookUp(code), name) << table.title << " code " << code;
    }
    for (ULONG code : table.unknown) {
      // The one shared constant, not merely an equal text.
      EXPECT_EQ(table.lookUp(code), gKnUnknownName) << table.title << " code " << code;
    }
  }
  EXPECT_EQ(51u, tables[11].names.size()) << "URB function codes 0x00 to 0x32";
  EXPECT_STREQ(gKnUnknownName, "unknown");
}

// The platform's status symbols, as the host's ntstatus.h (generated from it) defines them.
std::multimap<ULONG, std::string> PlatformSymbols() {
  std::string here = __FILE__;
  std::ifstream file(here.substr(0, here.rfind('/')) + "/../../wdmsim/include/ntstatus.h");
  EXPECT_TRUE(file.good()) << "cannot read the host's ntstatus.h";
  std::stringstream text;
  text << file.rdbuf();
  std::string content = text.str();
  std::multimap<ULONG, std::string> symbols;
  std::regex definition(R"(#define\s+(\w+)\s+\(\(NTSTATUS\)0x([0-9A-Fa-f]{8})L?\))");
  for (std::sregex_iterator it(content.begin(), content.end(), definition), end; it != end; ++it) {
    symbols.emplace((ULONG)std::stoul((*it)[2].str(), nullptr, 16), (*it)[1].str());
  }
  return symbols;
}

// Sorted, one platform symbol per value, none missing; each entry is found, and the values
// right beside it only when they are entries.
TEST(NameTables, EveryNtStatusEntryIsThePlatformSymbolAndIsFound) {
  ASSERT_EQ(gKnNtStatusNameCount, 919u);
  std::multimap<ULONG, std::string> symbols = PlatformSymbols();
  ASSERT_GT(symbols.size(), 919u);
  for (ULONG i = 0; i < gKnNtStatusNameCount; i++) {
    const KnNtStatusNameEntry& entry = gKnNtStatusNames[i];
    if (i > 0) {
      EXPECT_LT(gKnNtStatusNames[i - 1].Status, entry.Status) << "not sorted or not one name per value at " << i;
    }
    auto [first, last] = symbols.equal_range(entry.Status);
    bool isPlatformSymbol = false;
    for (auto it = first; it != last; ++it) isPlatformSymbol |= it->second == entry.Name;
    EXPECT_TRUE(isPlatformSymbol) << entry.Name << " is not the platform's name of 0x" << std::hex << entry.Status;

    EXPECT_EQ(KnNtStatusName((NTSTATUS)entry.Status), entry.Name);
    for (ULONG neighbour : {entry.Status - 1, entry.Status + 1}) {
      bool listed = (i > 0 && gKnNtStatusNames[i - 1].Status == neighbour) ||
                    (i + 1 < gKnNtStatusNameCount && gKnNtStatusNames[i + 1].Status == neighbour);
      if (!listed) {
        EXPECT_EQ(KnNtStatusName((NTSTATUS)neighbour), gKnUnknownName) << std::hex << neighbour;
      }
    }
  }
  // Where a value has several symbols, the table has the one a reader expects.
  EXPECT_STREQ(KnNtStatusName(STATUS_SUCCESS), "STATUS_SUCCESS");  // not STATUS_WAIT_0
  EXPECT_STREQ(KnNtStatusName((NTSTATUS)0x00000080), "STATUS_ABANDONED");  // not STATUS_ABANDONED_WAIT_0
  EXPECT_STREQ(KnNtStatusName(STATUS_PENDING), "STATUS_PENDING");
  EXPECT_EQ(KnNtStatusName((NTSTATUS)0xE0000001), gKnUnknownName);  // customer bit
  EXPECT_EQ(KnNtStatusName((NTSTATUS)0x00000004), gKnUnknownName);  // STATUS_WAIT_4 has no symbol
  EXPECT_EQ(KnNtStatusName((NTSTATUS)0xFFFFFFFF), gKnUnknownName);
}

}  // namespace
