#include "io/irp_tracker.h"

#include <functional>
#include <list>
#include <mutex>
#include <unordered_map>

#include <wdmsim/io.h>
#include <wdmsim/verifier.h>

#include "pool/malloc_allocator.h"

namespace wdmsim {
namespace io {

struct DispatchFrame {
  int location;
  PDEVICE_OBJECT device;
  UCHAR major;
  UCHAR minor;
  bool returned = false;
  NTSTATUS returnedStatus = STATUS_SUCCESS;
  bool passed = false;
  bool markedPending = false;
  NTSTATUS statusAtPass = STATUS_SUCCESS;
};

namespace {

// The tracker's containers take their memory from the C library directly: driver test
// programs route the global operator delete into the simulated pool.
using FrameList = std::list<DispatchFrame, pool::MallocAllocator<DispatchFrame>>;

struct IrpRecord {
  IrpOrigin origin;
  ULONG userBufferLength = 0;
  PDEVICE_OBJECT lastDevice = nullptr;
  UCHAR lastMajor = 0;
  UCHAR lastMinor = 0;
  FrameList frames;
};

using IrpMap = std::unordered_map<const IRP*, IrpRecord, std::hash<const IRP*>, std::equal_to<const IRP*>,
                                  pool::MallocAllocator<std::pair<const IRP* const, IrpRecord>>>;

struct Tracker {
  std::mutex lock;
  IrpMap irps;
  FrameList orphans;  // frames whose IRP was forgotten before their dispatch routine returned
};

Tracker& tracker() {
  static Tracker* t = new Tracker;  // outlives static destructors of test programs
  return *t;
}

// A broken promise found under the tracker lock, reported after it is released.
struct Finding {
  const char* code;
  const char* what;
  const IRP* irp;
  DispatchFrame frame;
};

void Judge(const IRP* irp, const DispatchFrame& f, std::vector<Finding>& findings) {
  if (f.returnedStatus == STATUS_PENDING) {
    if (!f.markedPending) {
      findings.push_back({"0x23D", "returned STATUS_PENDING but did not mark the IRP pending", irp, f});
    }
  } else if (f.markedPending) {
    findings.push_back({"0x23E", "marked the IRP pending but did not return STATUS_PENDING", irp, f});
  } else if (f.returnedStatus != f.statusAtPass) {
    findings.push_back({"0x224", "returned a status other than the IRP's IoStatus.Status", irp, f});
  }
}

void Report(const std::vector<Finding>& findings) {
  for (const Finding& f : findings) {
    ReportViolation("DRIVER_VERIFIER_IOMANAGER_VIOLATION", f.irp,
                    "I/O error %s: dispatch routine of device %p (major 0x%02x minor 0x%02x, stack location %d) %s; "
                    "returned 0x%08x, IoStatus.Status 0x%08x, IRP %p",
                    f.code, (void*)f.frame.device, f.frame.major, f.frame.minor, f.frame.location, f.what,
                    (unsigned)f.frame.returnedStatus, (unsigned)f.frame.statusAtPass, (const void*)f.irp);
  }
}

FrameList::iterator FindFrame(FrameList& list, const DispatchFrame* frame) {
  for (auto it = list.begin(); it != list.end(); ++it) {
    if (&*it == frame) return it;
  }
  return list.end();
}

// Frames whose dispatch routine has not returned yet outlive the IRP's record: their
// IofCallDriver still holds them. Finished ones are dropped.
void OrphanFrames(Tracker& t, IrpRecord& record) {
  FrameList& frames = record.frames;
  for (auto f = frames.begin(); f != frames.end();) {
    auto next = std::next(f);
    if (!f->returned) t.orphans.splice(t.orphans.end(), frames, f);
    f = next;
  }
  frames.clear();
}

}  // namespace

const char* OriginName(IrpOrigin origin) {
  switch (origin) {
    case IrpOrigin::Allocated: return "IoAllocateIrp";
    case IrpOrigin::Thread: return "synchronous (thread) request";
    case IrpOrigin::Asynchronous: return "IoBuildAsynchronousFsdRequest";
    case IrpOrigin::DriverInitialized: return "IoInitializeIrp on driver memory";
  }
  return "?";
}

void TrackIrp(const IRP* irp, IrpOrigin origin) {
  Tracker& t = tracker();
  std::lock_guard<std::mutex> guard(t.lock);
  IrpRecord& record = t.irps[irp];
  record.origin = origin;
  record.userBufferLength = 0;
  record.lastDevice = nullptr;
  OrphanFrames(t, record);
}

bool UntrackIrp(const IRP* irp) {
  Tracker& t = tracker();
  std::lock_guard<std::mutex> guard(t.lock);
  auto it = t.irps.find(irp);
  if (it == t.irps.end()) return false;
  OrphanFrames(t, it->second);
  t.irps.erase(it);
  return true;
}

bool LookupIrp(const IRP* irp, IrpOrigin* origin) {
  Tracker& t = tracker();
  std::lock_guard<std::mutex> guard(t.lock);
  auto it = t.irps.find(irp);
  if (it == t.irps.end()) return false;
  if (origin) *origin = it->second.origin;
  return true;
}

bool HasBeenSent(const IRP* irp) {
  Tracker& t = tracker();
  std::lock_guard<std::mutex> guard(t.lock);
  auto it = t.irps.find(irp);
  return it != t.irps.end() && it->second.lastDevice != nullptr;
}

size_t CountLiveIrps() {
  Tracker& t = tracker();
  std::lock_guard<std::mutex> guard(t.lock);
  size_t n = 0;
  for (const auto& entry : t.irps) n += entry.second.origin != IrpOrigin::DriverInitialized;
  return n;
}

void SetUserBufferLength(const IRP* irp, ULONG length) {
  Tracker& t = tracker();
  std::lock_guard<std::mutex> guard(t.lock);
  auto it = t.irps.find(irp);
  if (it != t.irps.end()) it->second.userBufferLength = length;
}

ULONG UserBufferLength(const IRP* irp) {
  Tracker& t = tracker();
  std::lock_guard<std::mutex> guard(t.lock);
  auto it = t.irps.find(irp);
  return it == t.irps.end() ? 0 : it->second.userBufferLength;
}

DispatchFrame* BeginDispatch(const IRP* irp, int location, PDEVICE_OBJECT device, UCHAR major, UCHAR minor) {
  Tracker& t = tracker();
  std::lock_guard<std::mutex> guard(t.lock);
  auto it = t.irps.find(irp);
  if (it == t.irps.end()) return nullptr;
  IrpRecord& record = it->second;
  record.lastDevice = device;
  record.lastMajor = major;
  record.lastMinor = minor;
  DispatchFrame frame;
  frame.location = location;
  frame.device = device;
  frame.major = major;
  frame.minor = minor;
  record.frames.push_back(frame);
  return &record.frames.back();
}

void EndDispatch(const IRP* irp, DispatchFrame* frame, NTSTATUS returned) {
  if (frame == nullptr) return;
  Tracker& t = tracker();
  std::vector<Finding> findings;
  {
    std::lock_guard<std::mutex> guard(t.lock);
    auto orphan = FindFrame(t.orphans, frame);
    if (orphan != t.orphans.end()) {
      t.orphans.erase(orphan);
      return;
    }
    auto it = t.irps.find(irp);
    if (it == t.irps.end()) return;
    FrameList& frames = it->second.frames;
    auto f = FindFrame(frames, frame);
    if (f == frames.end()) return;
    f->returned = true;
    f->returnedStatus = returned;
    if (f->passed) {
      Judge(irp, *f, findings);
      frames.erase(f);
    } else if (returned != STATUS_PENDING) {
      findings.push_back({"0x226",
                          "returned without completing the IRP or passing it on, or forgot to return STATUS_PENDING",
                          irp, *f});
      frames.erase(f);
    }
  }
  Report(findings);
}

void NoteLocationCompleted(const IRP* irp, int location, bool markedPending, NTSTATUS status) {
  Tracker& t = tracker();
  std::vector<Finding> findings;
  {
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.irps.find(irp);
    if (it == t.irps.end()) return;
    FrameList& frames = it->second.frames;
    for (auto f = frames.begin(); f != frames.end();) {
      auto next = std::next(f);
      if (f->location == location && !f->passed) {
        f->passed = true;
        f->markedPending = markedPending;
        f->statusAtPass = status;
        if (f->returned) {
          Judge(irp, *f, findings);
          frames.erase(f);
        }
      }
      f = next;
    }
  }
  Report(findings);
}

std::vector<LiveIrp> ForgetAllIrps() {
  Tracker& t = tracker();
  std::lock_guard<std::mutex> guard(t.lock);
  std::vector<LiveIrp> live;
  for (auto& [irp, record] : t.irps) {
    live.push_back({const_cast<PIRP>(irp), record.origin, record.lastDevice, record.lastMajor, record.lastMinor});
  }
  t.irps.clear();
  t.orphans.clear();
  return live;
}

}  // namespace io

size_t LiveIrpCount() { return io::CountLiveIrps(); }

bool IsLiveIrp(const IRP* irp) {
  io::IrpOrigin origin;
  return io::LookupIrp(irp, &origin) && origin != io::IrpOrigin::DriverInitialized;
}

}  // namespace wdmsim
