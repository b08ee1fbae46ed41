# Script mode: writes OUTPUT, a C++ file defining `std::string_view zbiap::FUNCTION()` that
# returns the bytes of INPUT. Run by zbiap_embed_file() at build time, so that an edit of the
# input file rebuilds what embeds it.
file(READ "${INPUT}" _hex HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," _bytes "${_hex}")
string(REGEX REPLACE "(('\\\\x[0-9a-f][0-9a-f]',){24})" "\\1\n    " _bytes "${_bytes}")
get_filename_component(_name "${INPUT}" NAME)
file(WRITE "${OUTPUT}.tmp" "// Generated from ${_name} at build time; do not edit.
#include <string_view>

namespace zbiap {

std::string_view ${FUNCTION}() {
  static constexpr char kBytes[] = {
    ${_bytes}'\\0'};
  return std::string_view(kBytes, sizeof(kBytes) - 1);
}

}  // namespace zbiap
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
