# Linked by first-party targets only, so outside headers never trip -Werror.
add_library(veltra_warnings INTERFACE)
target_compile_options(veltra_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
  -Woverloaded-virtual -Wconversion -Wsign-conversion -Wdouble-promotion
  -Wformat=2 -Wimplicit-fallthrough
  $<$<BOOL:${VELTRA_WERROR}>:-Werror>)
# clang 19 reports libstdc++ 12's own call of the deprecated get_temporary_buffer (inside
# std::stable_sort) against the code that sorts; that libstdc++ is not ours to fix.
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND NOT APPLE)
  target_compile_options(veltra_warnings INTERFACE -Wno-deprecated-declarations)
endif()
