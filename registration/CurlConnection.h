#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

namespace nox::tunnel_client {

/// What came back, whatever the status: a 404 is as much of an answer as a 200.
struct HttpResponse {
    CURLcode curlCode = CURLE_OK;  ///< always CURLE_OK in a response that was returned
    long httpCode = 0;             ///< of the last response, after redirects
    std::string body;              ///< not limited in size
};

/// Blocking HTTP requests with a JSON content type and a bearer token, each limited to 30 seconds. Every
/// request has a libcurl handle of its own, so nothing (connections, cookies, TLS state) is carried over to
/// the next. Servers are verified, and everything else is done, as libcurl does by default.
///
/// The life of an instance spans libcurl's global initialisation, so a process has one, made while no other
/// thread runs. The methods throw std::runtime_error: "Curl initialization failed", or "curl_easy_perform()
/// failed" when the transfer failed, with libcurl's code and the url in the log; and std::bad_alloc.
class CurlConnection {
public:
    CurlConnection();
    ~CurlConnection();
    CurlConnection(const CurlConnection&) = delete;
    CurlConnection& operator=(const CurlConnection&) = delete;

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
