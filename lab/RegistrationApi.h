#pragma once

#include <asio.hpp>
#include <memory>
#include <thread>

#include "lab/Registration.h"
#include "lab/Settings.h"

namespace lab {

/// The HTTP server of the registration API. Its own threads only read and write HTTP; every request is
/// handled on the event loop, so that nothing else in the lab needs a lock. The loop does not run out of work
/// until the last thread has ended.
class RegistrationApi {
public:
    /// Serves at once.
    /// @param handler called on `io`
    /// @throws std::system_error when the port cannot be opened
    RegistrationApi(asio::io_context& io, const Ports& ports, Registration& handler);
    /// Stops, then waits for the threads.
    ~RegistrationApi();
    RegistrationApi(const RegistrationApi&) = delete;
    RegistrationApi& operator=(const RegistrationApi&) = delete;

    unsigned short Port() const { return port; }
    /// Returns at once; requests that are being handled are still answered.
    void Stop();

private:
    struct Http;
    unsigned short Bind(asio::io_context& io, const Ports& ports);

    std::unique_ptr<Http> http;
    unsigned short port = 0;
    std::thread thread;
};

}  // namespace lab
