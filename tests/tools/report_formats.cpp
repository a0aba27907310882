// The report's two forms: JSON that scripts can rely on (escaping, null for a missing
// text, hex class codes) and the table's handling of long and missing values.
#include <gtest/gtest.h>

#include "sim_report.h"

namespace {

usbmisim::SimReport Sample() {
  usbmisim::SimReport r;
  r.device.vendorId = 0x4A9B;
  r.device.productId = 0x0042;
  r.device.configurationIndex = 1;
  r.device.powerBudgetMa = 100;
  r.device.hub = usbmisim::HubKind::BusPowered;
  r.device.startStatus = "STATUS_SUCCESS";
  usbmisim::ChildReport c;
  c.firstInterface = 2;
  c.interfaceCount = 2;
  c.interfaceClass = 0x02;
  c.interfaceSubClass = 0x0D;
  c.interfaceProtocol = 0x00;
  c.deviceId = "USB\\VID_4A9B&PID_0042&MI_02";
  c.hardwareIds = {"USB\\VID_4A9B&PID_0042&MI_02"};
  c.compatibleIds = {"USB\\CLASS_02&SUBCLASS_0D&PROT_00", "USB\\CLASS_02"};
  c.instanceId = "SN\"1";
  c.location = "tab\there";
  c.configurationDescriptor = {0x09, 0x02, 0x0A, 0x00, 0x01, 0x01, 0x00, 0x80, 0x32, 0xAB};
  r.children.push_back(c);
  return r;
}

TEST(ReportFormats, JsonIsExact) {
  EXPECT_EQ(usbmisim::FormatJson(Sample()),
            "{\"device\": {\"vid\": 19099, \"pid\": 66, \"configuration_index\": 1, \"power_ma\": 100, "
            "\"hub\": \"bus\", \"start_status\": \"STATUS_SUCCESS\"}, \"notification_interface\": null, "
            "\"children\": [{\"first_interface\": 2, \"interface_count\": 2, \"class\": \"02\", "
            "\"subclass\": \"0D\", \"protocol\": \"00\", \"device_id\": \"USB\\\\VID_4A9B&PID_0042&MI_02\", "
            "\"hardware_ids\": [\"USB\\\\VID_4A9B&PID_0042&MI_02\"], \"compatible_ids\": "
            "[\"USB\\\\CLASS_02&SUBCLASS_0D&PROT_00\", \"USB\\\\CLASS_02\"], \"instance_id\": \"SN\\\"1\", "
            "\"description\": null, \"location\": \"tab\\there\", "
            "\"configuration_descriptor\": \"09 02 0A 00 01 01 00 80 32 AB\"}], \"violations\": []}\n");
}

TEST(ReportFormats, TableWrapsLongSetsAndMarksMissingTexts) {
  usbmisim::SimReport r = Sample();
  r.children[0].configurationDescriptor.assign(17, 0x5A);
  std::string text = usbmisim::FormatText(r);
  EXPECT_NE(text.find("child 1: interfaces 2-3, class 02/0D/00"), std::string::npos);
  EXPECT_NE(text.find("description     (none)"), std::string::npos);
  // 16 bytes on the first line, the 17th under it.
  EXPECT_NE(text.find("config set      5A 5A 5A 5A 5A 5A 5A 5A 5A 5A 5A 5A 5A 5A 5A 5A\n                  5A\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("clean: no violation, no leak"), std::string::npos);
}

}  // namespace
