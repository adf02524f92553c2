#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

namespace nox::tunnel_client {

/// The reply to a request, whatever its status: a 404 is returned like a 200.
struct HttpResponse {
    long httpCode = 0;  ///< of the last response, after redirects
    std::string body;   ///< not limited in size
};

/// Blocking HTTP requests with a JSON content type and a bearer token, each limited to 30 seconds. Every
/// request has a libcurl handle of its own, so nothing (connections, cookies, TLS state) is carried over to
/// the next. Everything else, such as the verification of servers, is as libcurl does it by default.
///
/// The constructor initialises libcurl for the whole process and the destructor cleans it up, so a process
/// has one instance, made while no other thread runs. The methods throw std::bad_alloc, std::runtime_error
/// "Curl initialization failed", and std::runtime_error "curl_easy_perform() failed" when the transfer
/// failed; libcurl's code and the url are then in the log.
class CurlConnection {
public:
    CurlConnection();
    ~CurlConnection();
    CurlConnection(const CurlConnection&) = delete;
    CurlConnection& operator=(const CurlConnection&) = delete;

    /// The agent itself does not call this; it only posts and deletes.
    HttpResponse Get(const std::string& url, const std::string& token);
    /// @param body JSON text, sent up to its first NUL
    HttpResponse Post(const std::string& url, const std::string& token, const std::string& body);
    HttpResponse Delete(const std::string& url, const std::string& token);

private:
    struct HandleDeleter {
        void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
    };
    using Handle = std::unique_ptr<CURL, HandleDeleter>;

    void PrepareHandle();
    HttpResponse Perform(const std::string& url, const std::string& token);
    static std::size_t WriteCallback(char* data, std::size_t size, std::size_t count, void* body) noexcept;

    Handle handle;  // the request in preparation; null between requests
};

}  // namespace nox::tunnel_client
