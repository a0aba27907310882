// The meaning of an INF's sections for device installation on x64: [Version],
// [Manufacturer] with NTamd64 models, install sections with their .HW and .Services
// companions, AddService and AddReg. Every reference is checked before anything is
// installed, and each complaint names the line that made it.
#include "pnp/inf_package.h"

#include <cstdlib>
#include <map>

namespace wdmsim {
namespace pnp {
namespace {

constexpr char kArchitecture[] = "NTamd64";
constexpr uint32_t kAssociatedService = 0x2;  // SPSVCINST_ASSOCSERVICE: the function driver

class PackageBuilder {
 public:
  PackageBuilder(const InfFile& inf, InfPackage* package, InfError* error)
      : mInf(inf), mPackage(package), mError(error) {}

  bool Build() {
    mPackage->file = mInf.fileName();
    return ReadVersion() && ReadManufacturers();
  }

 private:
  bool Fail(int line, const std::string& message) {
    if (mError != nullptr) *mError = InfError{mInf.fileName(), line, message};
    return false;
  }

  static bool ParseNumber(const std::string& text, uint32_t* value) {
    if (text.empty()) return false;
    char* end = nullptr;
    unsigned long long parsed = std::strtoull(text.c_str(), &end, 0);
    if (*end != '\0' || parsed > 0xFFFFFFFFull) return false;
    *value = static_cast<uint32_t>(parsed);
    return true;
  }

  // MM/DD/YYYY with an optional ",w.x.y.z" version.
  static bool ValidDriverVer(const std::string& text) {
    size_t comma = text.find(',');
    std::string date = text.substr(0, comma);
    if (date.size() != 10 || date[2] != '/' || date[5] != '/') return false;
    for (size_t i : {0, 1, 3, 4, 6, 7, 8, 9}) {
      if (date[i] < '0' || date[i] > '9') return false;
    }
    return true;
  }

  // The line of a [Version] entry, for complaints about it.
  int VersionLine(const char* key) {
    const InfLine* line = mInf.FindLine("Version", key);
    if (line != nullptr) return line->number;
    const InfSection* version = mInf.Find("Version");
    return version != nullptr && !version->lines.empty() ? version->lines[0].number : 0;
  }

  bool ReadVersion() {
    if (mInf.Find("Version") == nullptr) return Fail(0, "no [Version] section");
    std::string signature = mInf.Value("Version", "Signature");
    if (!EqualsNoCase(signature, "$Windows NT$") && !EqualsNoCase(signature, "$Chicago$")) {
      return Fail(VersionLine("Signature"), "[Version] Signature must be \"$Windows NT$\" or \"$Chicago$\"");
    }
    mPackage->className = mInf.Value("Version", "Class");
    mPackage->classGuid = mInf.Value("Version", "ClassGuid");
    mPackage->provider = mInf.Value("Version", "Provider");
    mPackage->driverVer = mInf.Value("Version", "DriverVer");
    if (mPackage->className.empty() || mPackage->classGuid.empty()) {
      return Fail(VersionLine("Class"), "[Version] needs Class and ClassGuid");
    }
    if (mPackage->classGuid.size() != 38 || mPackage->classGuid.front() != '{' || mPackage->classGuid.back() != '}') {
      return Fail(VersionLine("ClassGuid"), "ClassGuid \"" + mPackage->classGuid + "\" is not a {GUID}");
    }
    if (!ValidDriverVer(mPackage->driverVer)) {
      return Fail(VersionLine("DriverVer"), "[Version] DriverVer must be MM/DD/YYYY[,w.x.y.z]");
    }
    return true;
  }

  // The models section of one [Manufacturer] line for x64, or "" when it offers none.
  static std::string ModelsSectionFor(const InfLine& line) {
    if (line.fields.size() == 1) return std::string();  // undecorated: not installable on x64
    for (size_t i = 1; i < line.fields.size(); ++i) {
      const std::string& decoration = line.fields[i];
      std::string upper = UpperAscii(decoration);
      std::string arch = UpperAscii(kArchitecture);
      if (upper == arch || upper.compare(0, arch.size() + 1, arch + ".") == 0) {
        return line.fields[0] + "." + decoration;
      }
    }
    return std::string();
  }

  bool ReadManufacturers() {
    const InfSection* manufacturers = mInf.Find("Manufacturer");
    if (manufacturers == nullptr) return Fail(0, "no [Manufacturer] section");
    for (const InfLine& line : manufacturers->lines) {
      if (line.fields.empty() || line.fields[0].empty()) {
        return Fail(line.number, "a [Manufacturer] line needs a models section name");
      }
      std::string modelsName = ModelsSectionFor(line);
      if (modelsName.empty()) continue;
      const InfSection* models = mInf.Find(modelsName);
      if (models == nullptr) return Fail(line.number, "models section [" + modelsName + "] is missing");
      std::string manufacturer = line.hasKey ? line.key : line.fields[0];
      for (const InfLine& model : models->lines) {
        if (!ReadModel(manufacturer, model)) return false;
      }
    }
    if (mPackage->models.empty()) return Fail(0, std::string("no device models for ") + kArchitecture);
    return true;
  }

  const InfSection* FindInstallSection(const std::string& name, std::string* chosen) {
    for (const std::string& candidate : {name + "." + kArchitecture, name + ".NT", name}) {
      if (const InfSection* section = mInf.Find(candidate)) {
        *chosen = section->name;
        return section;
      }
    }
    return nullptr;
  }

  bool ReadModel(const std::string& manufacturer, const InfLine& line) {
    if (!line.hasKey || line.fields.size() < 2 || line.fields[0].empty() || line.fields[1].empty()) {
      return Fail(line.number, "a model line needs 'description = install-section, hardware-id[, compatible-id...]'");
    }
    DriverModel model;
    model.manufacturer = manufacturer;
    model.description = line.key;
    for (size_t i = 1; i < line.fields.size(); ++i) {
      if (!line.fields[i].empty()) model.ids.push_back(line.fields[i]);
    }
    const InfSection* install = FindInstallSection(line.fields[0], &model.installSection);
    if (install == nullptr) return Fail(line.number, "install section [" + line.fields[0] + "] is missing");
    if (!ReadInstall(*install, &model.driverKeyAddReg)) return false;
    if (const InfSection* hw = mInf.Find(model.installSection + ".HW")) {
      if (!ReadAddRegReferences(*hw, &model.hardwareKeyAddReg)) return false;
    }
    const InfSection* services = mInf.Find(model.installSection + ".Services");
    if (services == nullptr) return Fail(line.number, "[" + model.installSection + ".Services] is missing");
    if (!ReadServices(*services, &model.service)) return false;
    if (model.service.empty()) {
      return Fail(services->lines.empty() ? line.number : services->lines[0].number,
                  "[" + services->name + "] has no AddService with flag 0x2 (the function driver)");
    }
    mPackage->models.push_back(std::move(model));
    return true;
  }

  bool ReadInstall(const InfSection& install, std::vector<RegistryEntry>* addReg) {
    for (const InfLine& line : install.lines) {
      if (!line.hasKey || !EqualsNoCase(line.key, "CopyFiles")) continue;
      for (const std::string& name : line.fields) {
        if (name.empty() || name[0] == '@') continue;
        if (mInf.Find(name) == nullptr) return Fail(line.number, "CopyFiles section [" + name + "] is missing");
      }
    }
    return ReadAddRegReferences(install, addReg);
  }

  // Every "AddReg = a, b" of section, each named section's lines in order.
  bool ReadAddRegReferences(const InfSection& section, std::vector<RegistryEntry>* entries) {
    for (const InfLine& line : section.lines) {
      if (!line.hasKey || !EqualsNoCase(line.key, "AddReg")) continue;
      for (const std::string& name : line.fields) {
        if (name.empty()) continue;
        const InfSection* addReg = mInf.Find(name);
        if (addReg == nullptr) return Fail(line.number, "AddReg section [" + name + "] is missing");
        for (const InfLine& entry : addReg->lines) {
          if (!ReadRegistryEntry(entry, entries)) return false;
        }
      }
    }
    return true;
  }

  bool ReadRegistryEntry(const InfLine& line, std::vector<RegistryEntry>* entries) {
    if (line.hasKey || line.fields.empty()) {
      return Fail(line.number, "an AddReg line is 'root, [subkey], [value-name], [flags], [value...]'");
    }
    RegistryEntry entry;
    entry.file = mInf.fileName();
    entry.line = line.number;
    entry.root = UpperAscii(line.fields[0]);
    if (entry.root != "HKR" && entry.root != "HKLM") {
      return Fail(line.number, "registry root \"" + line.fields[0] + "\" is not supported (HKR or HKLM)");
    }
    if (line.fields.size() > 1) entry.subkey = line.fields[1];
    if (line.fields.size() > 2) entry.valueName = line.fields[2];
    if (line.fields.size() > 3 && !line.fields[3].empty() && !ParseNumber(line.fields[3], &entry.flags)) {
      return Fail(line.number, "AddReg flags \"" + line.fields[3] + "\" are not a number");
    }
    entry.values.assign(line.fields.begin() + std::min<size_t>(line.fields.size(), 4), line.fields.end());
    uint32_t known = kAddRegTypeMask | kAddRegNoClobber | kAddRegKeyOnly;
    if ((entry.flags & ~known) != 0) return Fail(line.number, "AddReg flags " + line.fields[3] + " are not supported");
    uint32_t type = entry.flags & kAddRegTypeMask;
    bool knownType = type == 0 || type == 0x1 || type == 0x10000 || type == 0x20000 || type == 0x10001 || type == 0x20001;
    if (!knownType) return Fail(line.number, "AddReg value type in flags " + line.fields[3] + " is not supported");
    if (type == 0x10001 && !(entry.flags & kAddRegKeyOnly)) {
      uint32_t dword;
      if (entry.values.size() != 1 || !ParseNumber(entry.values[0], &dword)) {
        return Fail(line.number, "a DWORD value needs one number");
      }
    }
    if ((type == 0x1 || type == 0x20001) && !(entry.flags & kAddRegKeyOnly)) {
      for (const std::string& byte : entry.values) {
        char* end = nullptr;
        unsigned long parsed = std::strtoul(byte.c_str(), &end, 16);
        if (byte.empty() || *end != '\0' || parsed > 0xFF) {
          return Fail(line.number, "binary value byte \"" + byte + "\" is not two hex digits");
        }
      }
    }
    entries->push_back(std::move(entry));
    return true;
  }

  bool ReadServices(const InfSection& services, std::string* functionService) {
    for (const InfLine& line : services.lines) {
      if (!line.hasKey || !EqualsNoCase(line.key, "AddService")) continue;
      uint32_t flags = 0;
      if (line.fields.size() < 3 || line.fields[0].empty() || !ParseNumber(line.fields[1], &flags)) {
        return Fail(line.number, "AddService needs 'service-name, flags, service-install-section'");
      }
      const InfSection* install = mInf.Find(line.fields[2]);
      if (install == nullptr) return Fail(line.number, "service install section [" + line.fields[2] + "] is missing");
      if (!ReadServiceInstall(line.fields[0], *install, line.number)) return false;
      if (flags & kAssociatedService) *functionService = line.fields[0];
    }
    return true;
  }

  bool ResolveImagePath(const std::string& binary, int line, std::string* imagePath) {
    static const std::map<std::string, std::string> kDirectories = {
        {"%10%", "\\SystemRoot"}, {"%11%", "\\SystemRoot\\System32"}, {"%12%", "\\SystemRoot\\System32\\drivers"}};
    if (binary.empty() || binary[0] != '%') return Fail(line, "ServiceBinary must start with a directory id (%12%)");
    size_t close = binary.find('%', 1);
    auto directory = kDirectories.find(binary.substr(0, close + 1));
    if (directory == kDirectories.end()) {
      return Fail(line, "ServiceBinary directory id in \"" + binary + "\" is not supported (%10%, %11%, %12%)");
    }
    *imagePath = directory->second + binary.substr(close + 1);
    return true;
  }

  bool ReadServiceInstall(const std::string& name, const InfSection& install, int addServiceLine) {
    for (const ServiceInstall& known : mPackage->services) {
      if (EqualsNoCase(known.name, name)) return true;  // several models share one service
    }
    ServiceInstall service;
    service.name = name;
    std::map<std::string, const InfLine*> directives;
    for (const InfLine& line : install.lines) {
      if (line.hasKey) directives.emplace(UpperAscii(line.key), &line);
    }
    struct Required {
      const char* key;
      uint32_t* value;
    } numbers[] = {{"ServiceType", &service.type}, {"StartType", &service.start}, {"ErrorControl", &service.errorControl}};
    for (const Required& required : numbers) {
      auto it = directives.find(UpperAscii(required.key));
      if (it == directives.end()) {
        return Fail(addServiceLine, "[" + install.name + "] lacks " + required.key);
      }
      if (it->second->fields.empty() || !ParseNumber(it->second->fields[0], required.value)) {
        return Fail(it->second->number, std::string(required.key) + " is not a number");
      }
    }
    auto binary = directives.find("SERVICEBINARY");
    if (binary == directives.end() || binary->second->fields.empty()) {
      return Fail(addServiceLine, "[" + install.name + "] lacks ServiceBinary");
    }
    if (!ResolveImagePath(binary->second->fields[0], binary->second->number, &service.imagePath)) return false;
    auto display = directives.find("DISPLAYNAME");
    if (display != directives.end() && !display->second->fields.empty()) service.displayName = display->second->fields[0];
    if (!ReadAddRegReferences(install, &service.addReg)) return false;
    mPackage->services.push_back(std::move(service));
    return true;
  }

  const InfFile& mInf;
  InfPackage* mPackage;
  InfError* mError;
};

}  // namespace

bool BuildInfPackage(const InfFile& inf, InfPackage* package, InfError* error) {
  *package = InfPackage();
  return PackageBuilder(inf, package, error).Build();
}

}  // namespace pnp
}  // namespace wdmsim
