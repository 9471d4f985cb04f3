#include "common/debug-log.h"

#include "common/text.h"

namespace corvdrive::cloud_filter {

void EmitDebugLog(const std::string& line) { OutputDebugStringW(Utf8ToWide(line).c_str()); }

}  // namespace corvdrive::cloud_filter
