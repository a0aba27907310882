// What an INF installs, checked as a whole before anything is written: its class, the
// services it adds and, per device model, the IDs it matches, the function driver service
// and the registry entries for the device's hardware and driver keys.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "pnp/inf_file.h"

namespace wdmsim {
namespace pnp {

// One AddReg line. The root is "HKR" (the key the section is applied to) or "HKLM".
struct RegistryEntry {
  std::string file;
  int line = 0;
  std::string root;
  std::string subkey;
  std::string valueName;
  uint32_t flags = 0;
  std::vector<std::string> values;
};

struct ServiceInstall {
  std::string name;
  std::string displayName;
  uint32_t type = 0;
  uint32_t start = 0;
  uint32_t errorControl = 0;
  std::string imagePath;  // "\SystemRoot\System32\drivers\x.sys" for %12%\x.sys
  std::vector<RegistryEntry> addReg;
};

struct DriverModel {
  std::string manufacturer;
  std::string description;
  std::string installSection;  // the decorated name that was chosen
  std::vector<std::string> ids;  // the model's hardware ID, then its compatible IDs
  std::string service;           // the function driver (AddService flag 0x2)
  std::vector<RegistryEntry> hardwareKeyAddReg;  // [install.HW] AddReg
  std::vector<RegistryEntry> driverKeyAddReg;    // [install] AddReg
};

struct InfPackage {
  std::string file;
  std::string className;
  std::string classGuid;
  std::string provider;
  std::string driverVer;
  std::vector<ServiceInstall> services;
  std::vector<DriverModel> models;
};

bool BuildInfPackage(const InfFile& inf, InfPackage* package, InfError* error);

// AddReg flag bits the installer understands.
constexpr uint32_t kAddRegTypeMask = 0xFFFF0001;
constexpr uint32_t kAddRegNoClobber = 0x00000002;
constexpr uint32_t kAddRegKeyOnly = 0x00000010;

}  // namespace pnp
}  // namespace wdmsim
