// The generated NTSTATUS name table: its size and families, its order, that every name is
// the platform's own symbol for its value, and the lookups around each entry.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include <ntddk.h>

#include "knnametables.h"

namespace {

// The platform's status symbols, as the host's ntstatus.h (generated from it) defines them.
std::multimap<ULONG, std::string> PlatformSymbols() {
  std::string here = __FILE__;
  std::string path = here.substr(0, here.rfind('/')) + "/../../wdmsim/include/ntstatus.h";
  std::ifstream file(path);
  EXPECT_TRUE(file.good()) << "cannot read " << path;
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

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

TEST(NtStatusNames, SizeAndFamilies) {
  ASSERT_EQ(gKnNtStatusNameCount, 919u);
  std::map<std::string, int> families;
  for (ULONG i = 0; i < gKnNtStatusNameCount; i++) {
    std::string name = gKnNtStatusNames[i].Name;
    for (const char* prefix : {"STATUS_", "STATUS_CTX_", "STATUS_ACPI_", "RPC_NT_", "EPT_NT_", "DBG_"}) {
      families[prefix] += StartsWith(name, prefix);
    }
  }
  EXPECT_EQ(families["STATUS_"], 798);
  EXPECT_EQ(families["STATUS_CTX_"], 36);
  EXPECT_EQ(families["STATUS_ACPI_"], 27);
  EXPECT_EQ(families["RPC_NT_"], 104);
  EXPECT_EQ(families["EPT_NT_"], 4);
  EXPECT_EQ(families["DBG_"], 13);
  EXPECT_EQ(families["STATUS_"] + families["RPC_NT_"] + families["EPT_NT_"] + families["DBG_"], 919);

  std::set<std::string> debugger, endpoint;
  for (ULONG i = 0; i < gKnNtStatusNameCount; i++) {
    std::string name = gKnNtStatusNames[i].Name;
    if (StartsWith(name, "DBG_")) debugger.insert(name);
    if (StartsWith(name, "EPT_NT_")) endpoint.insert(name);
  }
  EXPECT_EQ(debugger, (std::set<std::string>{"DBG_APP_NOT_IDLE", "DBG_CONTINUE", "DBG_CONTROL_BREAK", "DBG_CONTROL_C",
                                             "DBG_EXCEPTION_HANDLED", "DBG_EXCEPTION_NOT_HANDLED",
                                             "DBG_NO_STATE_CHANGE", "DBG_PRINTEXCEPTION_C", "DBG_REPLY_LATER",
                                             "DBG_RIPEXCEPTION", "DBG_TERMINATE_PROCESS", "DBG_TERMINATE_THREAD",
                                             "DBG_UNABLE_TO_PROVIDE_HANDLE"}));
  EXPECT_EQ(endpoint, (std::set<std::string>{"EPT_NT_CANT_CREATE", "EPT_NT_CANT_PERFORM_OP", "EPT_NT_INVALID_ENTRY",
                                             "EPT_NT_NOT_REGISTERED"}));
}

TEST(NtStatusNames, EveryEntryIsThePlatformSymbolAndIsFound) {
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

    // The lookup finds each entry, and the values right beside it only when they are entries.
    EXPECT_EQ(KnNtStatusName((NTSTATUS)entry.Status), entry.Name);
    for (ULONG neighbour : {entry.Status - 1, entry.Status + 1}) {
      bool listed = (i > 0 && gKnNtStatusNames[i - 1].Status == neighbour) ||
                    (i + 1 < gKnNtStatusNameCount && gKnNtStatusNames[i + 1].Status == neighbour);
      if (!listed) {
        EXPECT_EQ(KnNtStatusName((NTSTATUS)neighbour), gKnUnknownName) << std::hex << neighbour;
      }
    }
  }
}

TEST(NtStatusNames, CodesTheSystemProducesAndAliases) {
  const std::pair<NTSTATUS, const char*> named[] = {
      {STATUS_SUCCESS, "STATUS_SUCCESS"},  // not STATUS_WAIT_0
      {(NTSTATUS)0x00000080, "STATUS_ABANDONED"},  // not STATUS_ABANDONED_WAIT_0
      {STATUS_PENDING, "STATUS_PENDING"},
      {STATUS_TIMEOUT, "STATUS_TIMEOUT"},
      {STATUS_UNSUCCESSFUL, "STATUS_UNSUCCESSFUL"},
      {STATUS_CANCELLED, "STATUS_CANCELLED"},
      {STATUS_NOT_SUPPORTED, "STATUS_NOT_SUPPORTED"},
      {STATUS_NO_SUCH_DEVICE, "STATUS_NO_SUCH_DEVICE"},
      {STATUS_DELETE_PENDING, "STATUS_DELETE_PENDING"},
      {STATUS_DEVICE_NOT_CONNECTED, "STATUS_DEVICE_NOT_CONNECTED"},
      {STATUS_MORE_PROCESSING_REQUIRED, "STATUS_MORE_PROCESSING_REQUIRED"},
      {STATUS_INVALID_DEVICE_REQUEST, "STATUS_INVALID_DEVICE_REQUEST"},
      {STATUS_INVALID_DEVICE_STATE, "STATUS_INVALID_DEVICE_STATE"},
      {STATUS_DEVICE_BUSY, "STATUS_DEVICE_BUSY"},
      {STATUS_IO_TIMEOUT, "STATUS_IO_TIMEOUT"},
      {STATUS_POWER_STATE_INVALID, "STATUS_POWER_STATE_INVALID"},
      {STATUS_INSUFFICIENT_RESOURCES, "STATUS_INSUFFICIENT_RESOURCES"},
      {STATUS_INVALID_PARAMETER, "STATUS_INVALID_PARAMETER"},
      {STATUS_BUFFER_TOO_SMALL, "STATUS_BUFFER_TOO_SMALL"},
      {STATUS_OBJECT_NAME_NOT_FOUND, "STATUS_OBJECT_NAME_NOT_FOUND"},
      {STATUS_ACCESS_DENIED, "STATUS_ACCESS_DENIED"},
      {STATUS_DEVICE_DATA_ERROR, "STATUS_DEVICE_DATA_ERROR"},
  };
  for (const auto& [status, name] : named) {
    EXPECT_STREQ(KnNtStatusName(status), name) << std::hex << (ULONG)status;
  }
  // Values of the lowest and highest entries, and values outside any family.
  EXPECT_EQ(KnNtStatusName((NTSTATUS)0xFFFFFFFF), gKnUnknownName);
  EXPECT_EQ(KnNtStatusName((NTSTATUS)0xE0000001), gKnUnknownName);  // customer bit
  EXPECT_EQ(KnNtStatusName((NTSTATUS)0x00000004), gKnUnknownName);  // STATUS_WAIT_4 has no symbol
  EXPECT_STREQ(KnNtStatusName((NTSTATUS)gKnNtStatusNames[gKnNtStatusNameCount - 1].Status),
               gKnNtStatusNames[gKnNtStatusNameCount - 1].Name);
}

}  // namespace
