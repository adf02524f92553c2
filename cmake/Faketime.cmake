# The library that makes a process's clock run faster when it is preloaded, for tests and the soak: its path
# is what they are compiled with.
find_library(FAKETIME_LIBRARY NAMES libfaketime.so.1 PATH_SUFFIXES faketime)
if(NOT FAKETIME_LIBRARY)
  message(FATAL_ERROR "libfaketime is missing: run scripts/setup.sh")
endif()
if(NOT TARGET faketime)
  add_library(faketime INTERFACE)
  target_compile_definitions(faketime INTERFACE FAKETIME_LIBRARY="${FAKETIME_LIBRARY}")
endif()
