# What every unit of ours is compiled with. Warnings are errors: the compilers are Debian's, so they do not surprise us.
add_compile_options(
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wnon-virtual-dtor
  -Woverloaded-virtual -Wformat=2 -Wnull-dereference -Werror)
add_compile_options(-fstack-protector-strong -ffunction-sections -fdata-sections)
add_link_options(-Wl,--gc-sections -Wl,--as-needed)
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
