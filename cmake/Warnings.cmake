# Linked by first-party targets only, so outside headers never trip -Werror.
add_library(veltra_warnings INTERFACE)
target_compile_options(veltra_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
  -Woverloaded-virtual -Wconversion -Wsign-conversion -Wdouble-promotion
  -Wformat=2 -Wimplicit-fallthrough
  $<$<BOOL:${VELTRA_WERROR}>:-Werror>)
