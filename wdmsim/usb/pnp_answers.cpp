// PnP answers of the USB bus drivers.
#include "usb/pnp_answers.h"

#include <cstring>

#include "usb/bus_model.h"

namespace wdmsim {
namespace usb {
namespace {

NTSTATUS AnswerUnits(PIRP irp, const std::vector<std::u16string>& texts, size_t closingNuls) {
  size_t units = closingNuls;
  for (const auto& text : texts) units += text.size() + 1;
  auto buffer = static_cast<PWCHAR>(ExAllocatePoolWithTag(PagedPool, units * sizeof(WCHAR), kPnpAnswerTag));
  if (buffer == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  memset(buffer, 0, units * sizeof(WCHAR));
  PWCHAR at = buffer;
  for (const auto& text : texts) {
    memcpy(at, text.data(), text.size() * sizeof(WCHAR));
    at += text.size() + 1;
  }
  irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(buffer);
  return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS AnswerString(PIRP irp, const std::u16string& text) { return AnswerUnits(irp, {text}, 0); }

NTSTATUS AnswerMultiString(PIRP irp, const std::vector<std::u16string>& texts) {
  return AnswerUnits(irp, texts, 1);
}

NTSTATUS AnswerRelations(PIRP irp, const std::vector<PDEVICE_OBJECT>& objects) {
  auto previous = reinterpret_cast<PDEVICE_RELATIONS>(irp->IoStatus.Information);
  const ULONG kept = previous != nullptr ? previous->Count : 0;
  const ULONG count = kept + static_cast<ULONG>(objects.size());
  const size_t bytes = sizeof(DEVICE_RELATIONS) + (count > 0 ? count - 1 : 0) * sizeof(PDEVICE_OBJECT);
  auto relations = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, bytes, kPnpAnswerTag));
  if (relations == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  relations->Count = count;
  for (ULONG i = 0; i < kept; ++i) relations->Objects[i] = previous->Objects[i];
  for (size_t i = 0; i < objects.size(); ++i) {
    ObReferenceObject(objects[i]);
    relations->Objects[kept + i] = objects[i];
  }
  if (previous != nullptr) ExFreePool(previous);
  irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
  return STATUS_SUCCESS;
}

NTSTATUS AnswerPdoRelations(PIRP irp, PDEVICE_OBJECT pdo) {
  if (IoGetCurrentIrpStackLocation(irp)->Parameters.QueryDeviceRelations.Type != TargetDeviceRelation) {
    return irp->IoStatus.Status;
  }
  irp->IoStatus.Information = 0;
  return AnswerRelations(irp, {pdo});
}

NTSTATUS FillUsbCapabilities(PDEVICE_CAPABILITIES capabilities) {
  if (capabilities == nullptr || capabilities->Version != 1 || capabilities->Size < sizeof(DEVICE_CAPABILITIES)) {
    return STATUS_UNSUCCESSFUL;
  }
  capabilities->DeviceState[PowerSystemWorking] = PowerDeviceD0;
  capabilities->DeviceState[PowerSystemSleeping1] = PowerDeviceD2;
  capabilities->DeviceState[PowerSystemSleeping2] = PowerDeviceD2;
  capabilities->DeviceState[PowerSystemSleeping3] = PowerDeviceD2;
  capabilities->DeviceState[PowerSystemHibernate] = PowerDeviceD3;
  capabilities->DeviceState[PowerSystemShutdown] = PowerDeviceD3;
  capabilities->DeviceD1 = 0;
  capabilities->DeviceD2 = 1;
  capabilities->SystemWake = PowerSystemUnspecified;
  capabilities->DeviceWake = PowerDeviceUnspecified;
  return STATUS_SUCCESS;
}

}  // namespace usb
}  // namespace wdmsim
