// The one unit that compiles asio itself; everyone else sees declarations only (ASIO_SEPARATE_COMPILATION).
#include <asio/detail/config.hpp>
// Timers by epoll's own time-out: asio would not notice when the kernel refuses to watch a descriptor for
// them, and the tunnel would wait for ever. There is no switch for it in this version; only what is compiled
// here looks at this name.
#undef ASIO_HAS_TIMERFD
#include <asio/impl/src.hpp>
