// usbmi-sim: plugs a composite USB device into a simulated Windows machine with the usbmi
// driver installed and prints what the device becomes: the configuration the driver chose,
// the notification interface it kept, and every child with its identifiers and texts, then
// the verifier's verdict. Exit codes: 0 clean, 1 the verifier found something, 2 bad input.
#include <cstdio>
#include <string>
#include <vector>

#include "sim_options.h"
#include "simulation.h"

int main(int argc, char** argv) {
  using namespace usbmisim;
  ParseResult parsed = ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
  if (!parsed) {
    std::fprintf(stderr, "usbmi-sim: %s\n", parsed.error.c_str());
    return 2;
  }
  if (parsed.options.help) {
    std::fputs(UsageText(), stdout);
    return 0;
  }
  LoadResult loaded = LoadSimDevice(parsed.options);
  if (!loaded.error.empty()) {
    std::fprintf(stderr, "usbmi-sim: %s\n", loaded.error.c_str());
    return 2;
  }
  SimReport report = RunSimulation(parsed.options, loaded.device);
  std::string out = parsed.options.json ? FormatJson(report) : FormatText(report);
  std::fputs(out.c_str(), stdout);
  return report.violations.empty() ? 0 : 1;
}
