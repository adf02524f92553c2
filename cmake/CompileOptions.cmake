# What every unit of ours is compiled with. Warnings are errors: the compilers are Debian's, so they do not surprise us.
add_compile_options(
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wnon-virtual-dtor
  -Woverloaded-virtual -Wformat=2 -Wnull-dereference -Werror)
# On 32 bits, files grow beyond 2 GiB and dates go beyond 2038 only with these.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
add_compile_options(-fstack-protector-strong -fstack-clash-protection -ffunction-sections -fdata-sections)
add_link_options(-Wl,--gc-sections -Wl,--as-needed -Wl,-z,relro -Wl,-z,now)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>)
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT SANITIZE)
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  # The paths of the machine that builds do not get into the programs. Others need them to find the sources.
  add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
endif()
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  # gcc 7 changed how such arguments are passed, which matters only beside objects of an older one.
  add_compile_options(-Wno-psabi)
endif()
include_directories(${PROJECT_SOURCE_DIR})

if(SANITIZE)
  # Quick to compile, fast enough, and a report still names every line.
  add_compile_options(-O1 -g1 -fsanitize=${SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # With the sanitizers' instrumentation, gcc sees null pointers that cannot be.
    add_compile_options(-Wno-null-dereference -Wno-maybe-uninitialized)
    # asio has a fence that the thread sanitizer does not model; gcc would refuse to compile it.
    if(SANITIZE MATCHES "thread")
      add_compile_options(-Wno-tsan)
    endif()
  endif()
endif()
