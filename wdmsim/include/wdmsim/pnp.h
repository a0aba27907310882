// wdmsim host API: device nodes, the PnP manager's record of each physical device object:
// its instance path (which places its registry keys), its device properties, and the
// relation invalidations its drivers asked for.
#pragma once
#include <string>
#include <vector>

#include <wdm.h>

namespace wdmsim {

// Makes pdo a device node with that instance path, e.g. u"USB\\VID_4A9B&PID_0042\\5&1a2b&0&1".
// Its hardware key is "\Registry\Machine\System\CurrentControlSet\Enum\<path>\Device Parameters"
// and its driver key "\Registry\Machine\System\CurrentControlSet\Control\Class\<path>".
void RegisterDeviceNode(PDEVICE_OBJECT pdo, const std::u16string& instancePath);
void ForgetDeviceNode(PDEVICE_OBJECT pdo);
bool IsDeviceNode(const DEVICE_OBJECT* pdo);

std::u16string DeviceHardwareKeyPath(const DEVICE_OBJECT* pdo);
std::u16string DeviceDriverKeyPath(const DEVICE_OBJECT* pdo);

// A string property as IoGetDeviceProperty returns it (NUL-terminated; a REG_MULTI_SZ
// property such as DevicePropertyHardwareID is given as its strings, each NUL-terminated,
// plus the closing NUL). An unset property makes IoGetDeviceProperty fail.
void SetDeviceStringProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, const std::u16string& value);
void SetDeviceMultiStringProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property,
                                  const std::vector<std::u16string>& values);
void SetDeviceNumberProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, ULONG value);
void ClearDeviceProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property);

struct RelationInvalidation {
  PDEVICE_OBJECT pdo;
  DEVICE_RELATION_TYPE type;
};
// IoInvalidateDeviceRelations calls since the last take, oldest first.
std::vector<RelationInvalidation> TakeRelationInvalidations();

}  // namespace wdmsim
