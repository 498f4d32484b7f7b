# The warnings our own targets are built with; never part of what a host inherits.
add_library(orvexeng_warnings INTERFACE)
target_compile_options(orvexeng_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${ORVEXENG_WERROR}>:-Werror>)
