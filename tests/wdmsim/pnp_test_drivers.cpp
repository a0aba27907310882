#include "pnp_test_drivers.h"

#include <gtest/gtest.h>

#include <wdmsim/verifier.h>

namespace pnptest {
namespace {

struct Extension {
  PDEVICE_OBJECT lower;
  std::u16string* service;
};

struct State {
  std::mutex lock;
  std::map<std::u16string, DriverBehaviour> behaviours;
  std::vector<std::string> log;
  bool traceEntries = false;
  std::map<std::u16string, int> liveFdos;
};

State* gState = nullptr;

std::string Narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

std::u16string ServiceOf(PDRIVER_OBJECT driver) {
  const UNICODE_STRING& name = driver->DriverExtension->ServiceKeyName;
  return std::u16string(reinterpret_cast<const char16_t*>(name.Buffer), name.Length / 2);
}

void Log(const std::u16string& service, const std::string& what) {
  std::lock_guard<std::mutex> guard(gState->lock);
  gState->log.push_back(Narrow(service) + " " + what);
}

DriverBehaviour BehaviourCopy(const std::u16string& service) {
  std::lock_guard<std::mutex> guard(gState->lock);
  return gState->behaviours[service];
}

const char* MinorName(UCHAR minor) {
  static const char* const kNames[] = {
      "START_DEVICE", "QUERY_REMOVE_DEVICE", "REMOVE_DEVICE", "CANCEL_REMOVE_DEVICE", "STOP_DEVICE",
      "QUERY_STOP_DEVICE", "CANCEL_STOP_DEVICE", "QUERY_DEVICE_RELATIONS", "QUERY_INTERFACE", "QUERY_CAPABILITIES",
      "QUERY_RESOURCES", "QUERY_RESOURCE_REQUIREMENTS", "QUERY_DEVICE_TEXT", "FILTER_RESOURCE_REQUIREMENTS", "0x0E",
      "READ_CONFIG", "WRITE_CONFIG", "EJECT", "SET_LOCK", "QUERY_ID", "QUERY_PNP_DEVICE_STATE",
      "QUERY_BUS_INFORMATION", "DEVICE_USAGE_NOTIFICATION", "SURPRISE_REMOVAL"};
  return minor < sizeof kNames / sizeof kNames[0] ? kNames[minor] : "?";
}

NTSTATUS NTAPI SignalEvent(PDEVICE_OBJECT, PIRP, PVOID context) {
  KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS ForwardAndWait(Extension* ext, PIRP irp) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoCopyCurrentIrpStackLocationToNext(irp);
  IoSetCompletionRoutine(irp, SignalEvent, &done, TRUE, TRUE, TRUE);
  if (IoCallDriver(ext->lower, irp) == STATUS_PENDING) {
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  }
  return irp->IoStatus.Status;
}

NTSTATUS Complete(PIRP irp, NTSTATUS status) {
  irp->IoStatus.Status = status;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

NTSTATUS PassDown(Extension* ext, PIRP irp) {
  IoSkipCurrentIrpStackLocation(irp);
  return IoCallDriver(ext->lower, irp);
}

NTSTATUS AnswerBusRelations(const DriverBehaviour& behaviour, Extension* ext, PIRP irp) {
  ULONG count = static_cast<ULONG>(behaviour.children.size());
  size_t size = sizeof(DEVICE_RELATIONS) + (count > 0 ? count - 1 : 0) * sizeof(PDEVICE_OBJECT);
  auto relations = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, size, 0x74426E50 /* "PnBt" */));
  relations->Count = count;
  for (ULONG i = 0; i < count; ++i) {
    relations->Objects[i] = behaviour.children[i];
    if (!behaviour.forgetReferences) ObReferenceObject(behaviour.children[i]);
  }
  irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
  irp->IoStatus.Status = STATUS_SUCCESS;
  return PassDown(ext, irp);
}

NTSTATUS HandlePnp(const std::u16string& service, PDEVICE_OBJECT fdo, Extension* ext, PIRP irp) {
  DriverBehaviour behaviour = BehaviourCopy(service);
  UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
  auto refusal = behaviour.refuse.find(minor);
  switch (minor) {
    case IRP_MN_START_DEVICE: {
      NTSTATUS status = ForwardAndWait(ext, irp);
      if (NT_SUCCESS(status) && behaviour.startDelayMs > 0) {
        LARGE_INTEGER delay;
        delay.QuadPart = -10000LL * behaviour.startDelayMs;
        KeDelayExecutionThread(KernelMode, FALSE, &delay);
      }
      if (NT_SUCCESS(status) && refusal != behaviour.refuse.end()) status = refusal->second;
      return Complete(irp, status);
    }
    case IRP_MN_REMOVE_DEVICE: {
      irp->IoStatus.Status = STATUS_SUCCESS;
      NTSTATUS status = PassDown(ext, irp);
      if (behaviour.keepDeviceOnRemove) return status;
      IoDetachDevice(ext->lower);
      IoDeleteDevice(fdo);
      std::lock_guard<std::mutex> guard(gState->lock);
      gState->liveFdos[service]--;
      return status;
    }
    case IRP_MN_QUERY_DEVICE_RELATIONS:
      if (behaviour.bus && IoGetCurrentIrpStackLocation(irp)->Parameters.QueryDeviceRelations.Type == BusRelations) {
        return AnswerBusRelations(behaviour, ext, irp);
      }
      return PassDown(ext, irp);
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
      if (refusal != behaviour.refuse.end()) return Complete(irp, refusal->second);
      [[fallthrough]];
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
      irp->IoStatus.Status = STATUS_SUCCESS;
      return PassDown(ext, irp);
    default:
      return PassDown(ext, irp);
  }
}

NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT fdo, PIRP irp) {
  auto ext = static_cast<Extension*>(fdo->DeviceExtension);
  std::u16string service = *ext->service;
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  if (stack->MajorFunction == IRP_MJ_POWER) {
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(ext->lower, irp);
  }
  if (stack->MajorFunction != IRP_MJ_PNP) return PassDown(ext, irp);
  std::string name = MinorName(stack->MinorFunction);
  bool trace;
  {
    std::lock_guard<std::mutex> guard(gState->lock);
    trace = gState->traceEntries;
  }
  Log(service, trace ? name + " +" : name);
  NTSTATUS status = HandlePnp(service, fdo, ext, irp);
  if (trace) Log(service, name + " -");
  return status;
}

NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
  std::u16string service = ServiceOf(driver);
  Log(service, "AddDevice");
  DriverBehaviour behaviour = BehaviourCopy(service);
  if (!NT_SUCCESS(behaviour.addDevice)) return behaviour.addDevice;
  PDEVICE_OBJECT fdo;
  NTSTATUS status = IoCreateDevice(driver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &fdo);
  if (!NT_SUCCESS(status)) return status;
  auto ext = static_cast<Extension*>(fdo->DeviceExtension);
  ext->lower = IoAttachDeviceToDeviceStack(fdo, pdo);
  {
    std::lock_guard<std::mutex> guard(gState->lock);
    // The map's node is stable for the run: the extension points at its key.
    auto it = gState->behaviours.find(service);
    ext->service = const_cast<std::u16string*>(&it->first);
    gState->liveFdos[service]++;
  }
  fdo->Flags &= ~DO_DEVICE_INITIALIZING;
  return STATUS_SUCCESS;
}

void NTAPI Unload(PDRIVER_OBJECT driver) { Log(ServiceOf(driver), "Unload"); }

NTSTATUS NTAPI TestDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  driver->DriverExtension->AddDevice = AddDevice;
  driver->DriverUnload = Unload;
  for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) dispatch = Dispatch;
  return STATUS_SUCCESS;
}

// Capabilities of a test device: like a raw PDO's, with UniqueID chosen by the test and
// no raw use, so that a device without a driver stays unstarted.
bool AnswerCapabilities(bool uniqueId, PIRP irp, NTSTATUS* status) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  if (stack->MajorFunction != IRP_MJ_PNP || stack->MinorFunction != IRP_MN_QUERY_CAPABILITIES) return false;
  PDEVICE_CAPABILITIES caps = stack->Parameters.DeviceCapabilities.Capabilities;
  caps->DeviceState[PowerSystemWorking] = PowerDeviceD0;
  for (int s = PowerSystemSleeping1; s < PowerSystemMaximum; ++s) caps->DeviceState[s] = PowerDeviceD3;
  caps->UniqueID = uniqueId;
  caps->SurpriseRemovalOK = 1;
  caps->Removable = 1;
  *status = Complete(irp, STATUS_SUCCESS);
  return true;
}

}  // namespace

TestDrivers::TestDrivers() { gState = new State; }

TestDrivers::~TestDrivers() {
  delete gState;
  gState = nullptr;
}

DriverBehaviour& TestDrivers::Add(const std::u16string& service) {
  wdmsim::RegisterDriverImage(service, TestDriverEntry);
  std::lock_guard<std::mutex> guard(gState->lock);
  return gState->behaviours[service];
}

DriverBehaviour& TestDrivers::Behaviour(const std::u16string& service) {
  std::lock_guard<std::mutex> guard(gState->lock);
  return gState->behaviours[service];
}

std::vector<std::string> TestDrivers::TakeLog() {
  std::lock_guard<std::mutex> guard(gState->lock);
  std::vector<std::string> out;
  out.swap(gState->log);
  return out;
}

void TestDrivers::TraceEntries(bool on) {
  std::lock_guard<std::mutex> guard(gState->lock);
  gState->traceEntries = on;
}

int TestDrivers::LiveFdos(const std::u16string& service) {
  std::lock_guard<std::mutex> guard(gState->lock);
  return gState->liveFdos[service];
}

void TestDrivers::DeleteKeptFdo(PDEVICE_OBJECT fdo) {
  auto ext = static_cast<Extension*>(fdo->DeviceExtension);
  std::u16string service = *ext->service;
  IoDetachDevice(ext->lower);
  IoDeleteDevice(fdo);
  std::lock_guard<std::mutex> guard(gState->lock);
  gState->liveFdos[service]--;
}

std::string InfFor(const std::string& service, const std::vector<Model>& models, const std::string& hwAddReg) {
  std::string text =
      "[Version]\n"
      "Signature = \"$Windows NT$\"\n"
      "Class = USB\n"
      "ClassGuid = {36FC9E60-C465-11CF-8056-444553540000}\n"
      "Provider = %Provider%\n"
      "DriverVer = 01/02/2024,1.0.0.0\n"
      "[Manufacturer]\n"
      "%Provider% = Models, NTamd64\n"
      "[Models.NTamd64]\n";
  for (const Model& model : models) {
    text += "\"" + model.description + "\" = Install";
    for (const std::string& id : model.ids) text += ", " + id;
    text += "\n";
  }
  text +=
      "[Install.NT]\n"
      "[Install.NT.HW]\n"
      "AddReg = HwAddReg\n"
      "[HwAddReg]\n" +
      hwAddReg +
      "[Install.NT.Services]\n"
      "AddService = " + service + ", 0x00000002, ServiceInstall\n"
      "[ServiceInstall]\n"
      "ServiceType = 1\n"
      "StartType = 3\n"
      "ErrorControl = 1\n"
      "ServiceBinary = %12%\\" + service + ".sys\n"
      "[Strings]\n"
      "Provider = \"wdmsim tests\"\n";
  return text;
}

void Install(const std::string& service, const std::vector<Model>& models, const std::string& hwAddReg) {
  wdmsim::InfError error;
  ASSERT_TRUE(wdmsim::InstallInf(service + ".inf", InfFor(service, models, hwAddReg), &error)) << error.Text();
}

PDEVICE_OBJECT CreateDevice(const std::u16string& deviceId, const std::vector<std::u16string>& hardwareIds,
                            const std::vector<std::u16string>& compatibleIds, const std::u16string& instanceId,
                            bool uniqueId) {
  wdmsim::RawPdoOptions options;
  options.deviceId = deviceId;
  options.hardwareIds = hardwareIds;
  options.compatibleIds = compatibleIds;
  options.instanceId = instanceId;
  options.description = u"bus text of " + deviceId;
  options.location = u"Port_#0001";
  options.hook = [uniqueId](PDEVICE_OBJECT, PIRP irp, NTSTATUS* status) {
    return AnswerCapabilities(uniqueId, irp, status);
  };
  return wdmsim::CreateRawPdo(options);
}

std::vector<std::string> Names(wdmsim::DeviceNodeId node) { return wdmsim::DeviceNodeRequestNames(node); }

BusTest::BusTest() {
  drivers.Add(u"pnpbus").bus = true;
  drivers.Add(u"pnpfunc");
  Install("pnpbus", {{"test bus", {"WDMSIM\\BUS"}}});
  Install("pnpfunc", {{"test function", {"WDMSIM\\FUNC"}}});
  busPdo = CreateDevice(u"WDMSIM\\BUS", {u"WDMSIM\\BUS"}, {}, u"1");
}

BusTest::~BusTest() { wdmsim::DeleteRawPdo(busPdo); }

}  // namespace pnptest
