# Writes OUT, the routine that puts every module of the headers under SRC back to its state at the start of the process.
file(GLOB_RECURSE headers RELATIVE ${SRC} ${SRC}/*.h)
list(SORT headers)
set(includes "")
set(resets "")
foreach(header ${headers})
  file(STRINGS ${SRC}/${header} lines REGEX "^inline [a-z0-9_]+_module [a-z0-9_]+;")
  if(lines)
    string(APPEND includes "#include \"${header}\"\n")
    foreach(line ${lines})
      string(REGEX REPLACE "^inline [a-z0-9_]+ ([a-z0-9_]+).*" "\\1" name "${line}")
      string(APPEND resets "    anew(${name});\n")
    endforeach()
  endif()
endforeach()
set(text "${includes}#include <memory>

namespace tarvex {

void reset_modules();

namespace {
template <class M> void anew(M& module) {
    std::destroy_at(&module);
    std::construct_at(&module);
}
} // namespace

void reset_modules() {
${resets}}

} // namespace tarvex
")
file(WRITE ${OUT} "${text}")
