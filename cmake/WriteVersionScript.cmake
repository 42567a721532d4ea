# Writes the linker version script of the shared library: the routines the
# public header declares with PA_API are global under one version node, and
# everything else is local. The visibility preset already hides the library's
# own internals; what the script adds is hiding the standard-library template
# instantiations (std::vector<int>::_M_realloc_insert and the like) that the
# compiler emits as weak default-visibility symbols, so that another library
# built against a different standard library can never bind to our copies.
#
#   cmake -DHEADER=<profile_analysis.h> -DOUTPUT=<file.map> -DNODE=<name> -P WriteVersionScript.cmake

file(STRINGS "${HEADER}" declarations REGEX "^PA_API [^(]*[ *&][A-Za-z_][A-Za-z0-9_]*\\(")
set(patterns "")
foreach(declaration IN LISTS declarations)
  string(REGEX MATCH "[A-Za-z_][A-Za-z0-9_]*\\(" name "${declaration}")
  string(REGEX REPLACE "\\($" "" name "${name}")
  # Free functions of the global namespace are mangled as _Z<length><name>
  # followed by their argument types, so this pattern matches every overload
  # of the name and nothing else (hx_getLocalPeaks is not a prefix of
  # _Z30hx_getLocalPeaks_distTransform...). Itanium C++ ABI: GCC and Clang.
  string(LENGTH "${name}" length)
  string(APPEND patterns "    _Z${length}${name}*;\n")
endforeach()
if(patterns STREQUAL "")
  message(FATAL_ERROR "no PA_API declaration found in ${HEADER}")
endif()
set(script "${NODE} {\n  global:\n${patterns}  local:\n    *;\n};\n")
file(WRITE "${OUTPUT}" "${script}")
