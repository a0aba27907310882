// The tests' own reading of configuration sets, independent of the code under test.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace usb_description_test {

// Every descriptor of a set; a descriptor that does not fit fails the test.
inline std::vector<std::vector<uint8_t>> Descriptors(const std::vector<uint8_t>& set) {
  std::vector<std::vector<uint8_t>> out;
  size_t offset = 0;
  while (offset < set.size()) {
    const size_t length = set[offset];
    if (length < 2 || offset + length > set.size()) {
      ADD_FAILURE() << "descriptor at " << offset << " does not fit";
      break;
    }
    out.emplace_back(set.begin() + offset, set.begin() + offset + length);
    offset += length;
  }
  return out;
}

// One line per IAD ("IAD 0+2 EF/04/01") and per interface descriptor with its endpoints
// ("1/0 0A/00/00 eps=2 ep 82 type 2 mps 512 ep 01 type 2 mps 512").
inline std::vector<std::string> Layout(const std::vector<uint8_t>& set) {
  std::vector<std::string> out;
  char line[128];
  for (const auto& d : Descriptors(set)) {
    if (d[1] == 0x04 && d.size() >= 9) {
      std::snprintf(line, sizeof line, "%u/%u %02X/%02X/%02X eps=%u", d[2], d[3], d[5], d[6], d[7], d[4]);
      out.push_back(line);
    } else if (d[1] == 0x05 && d.size() >= 7 && !out.empty()) {
      std::snprintf(line, sizeof line, " ep %02X type %u mps %u", d[2], d[3] & 3u, d[4] | d[5] << 8);
      out.back() += line;
    } else if (d[1] == 0x0B && d.size() >= 8) {
      std::snprintf(line, sizeof line, "IAD %u+%u %02X/%02X/%02X", d[2], d[3], d[4], d[5], d[6]);
      out.push_back(line);
    }
  }
  return out;
}

}  // namespace usb_description_test
