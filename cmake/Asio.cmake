# asio's sources are compiled once, here, and not again in every unit that includes a header of it.
find_package(Threads REQUIRED)
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)

add_library(asio STATIC ${CMAKE_CURRENT_LIST_DIR}/AsioSources.cpp)
target_include_directories(asio SYSTEM PUBLIC ${ASIO_INCLUDE_DIR})
target_compile_definitions(asio PUBLIC ASIO_STANDALONE ASIO_SEPARATE_COMPILATION ASIO_NO_DEPRECATED
  # Otherwise whether asio uses std::aligned_alloc depends on what a unit includes before it, and one unit would free
  # with delete what another got from malloc.
  ASIO_DISABLE_STD_ALIGNED_ALLOC)
target_compile_options(asio PRIVATE -w)
target_link_libraries(asio PUBLIC Threads::Threads)
