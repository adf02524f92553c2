// The one unit that compiles asio itself; everyone else sees declarations only (ASIO_SEPARATE_COMPILATION).
#include <asio/impl/src.hpp>
