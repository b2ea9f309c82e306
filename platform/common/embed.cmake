# Writes OUTPUT: the device headers HEADERS, in order, as one text without their includes, and the
# version that the headers and the compiler's SOURCES make together.
set(text "")
set(hashed "")
foreach(header IN LISTS HEADERS)
  file(READ "${header}" content)
  string(REGEX REPLACE "#pragma once\n|#include [^\n]*\n" "" content "${content}")
  string(APPEND text "${content}")
endforeach()
foreach(source IN LISTS SOURCES)
  file(SHA256 "${source}" hash)
  string(APPEND hashed "${hash}")
endforeach()
string(SHA256 version "${text}${hashed}")
string(SUBSTRING "${version}" 0 16 version)
file(WRITE "${OUTPUT}" "#include \"platform/common/device_text.h\"

namespace kevra_platform {

const std::string_view device_text = R\"DEVICE(${text})DEVICE\";
const uint64_t device_version = 0x${version};

}  // namespace kevra_platform
")
