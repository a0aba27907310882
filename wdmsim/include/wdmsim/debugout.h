// wdmsim host API: where DbgPrint output goes.
#pragma once
#include <string>

namespace wdmsim {

enum class DebugSink { Stderr, Memory, File, Discard };

void SetDebugSink(DebugSink sink, const std::string& path = std::string());
// Everything DbgPrint wrote to the memory sink since the last call (and clears it).
std::string TakeDebugOutput();
// RtlAssert reports go to the debug output as well; count of them since the last call.
int TakeRtlAssertCount();

}  // namespace wdmsim
